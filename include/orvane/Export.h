/* File: Export.h
 * What a shared liborvane exports. The library is built with hidden visibility, so only
 * declarations marked ORVANE_API (the public C++ API and the C ABI) are visible to hosts.
 * Written in C so that orvane.h can include it. */
#ifndef ORVANE_EXPORT_H
#define ORVANE_EXPORT_H

#if defined(_WIN32)
#if defined(ORVANE_BUILDING_SHARED)
#define ORVANE_API __declspec(dllexport)
#elif defined(ORVANE_USING_SHARED)
#define ORVANE_API __declspec(dllimport)
#else
#define ORVANE_API
#endif
#elif defined(__GNUC__) || defined(__clang__)
#define ORVANE_API __attribute__((visibility("default")))
#else
#define ORVANE_API
#endif

#endif /* ORVANE_EXPORT_H */

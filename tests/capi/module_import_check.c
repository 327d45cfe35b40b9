/* Compiled with clang -fmodules -fsyntax-only: the header imports as the module a Swift or
 * Objective-C bridge uses. */
@import Orvane;

const char* orvane_module_version(void) { return orvane_sdk_version(); }

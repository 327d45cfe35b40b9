// File: PlatformError.h
// Kept for internal includes; the type is public.
#pragma once

#include "orvane/PlatformError.h"

// Symbol visibility for libvelclasses.so.
//
// The library is built with hidden visibility by default; every class and
// function meant for users carries VEL_API so that it is exported by name.
#pragma once

#if defined(VEL_STATIC)
#  define VEL_API
#  define VEL_LOCAL
#elif defined(__GNUC__)
#  define VEL_API __attribute__((visibility("default")))
#  define VEL_LOCAL __attribute__((visibility("hidden")))
#else
#  define VEL_API
#  define VEL_LOCAL
#endif

#ifndef TOVRA_EXPORT_H
#define TOVRA_EXPORT_H

/**
 * @file
 * TOVRA_API marks the library's public symbols; everything else is hidden.
 *
 * @defgroup tovra_build Building against tovra
 * The export and calling-convention macros of the interface, and the version it was
 * built with.
 * @{
 */
#if defined(_WIN32)
#  if defined(TOVRA_BUILDING)
#    define TOVRA_API __declspec(dllexport)
#  else
#    define TOVRA_API __declspec(dllimport)
#  endif
#  define TOVRA_CALL __cdecl
#else
/** Marks a public symbol: exported while the library is built, imported by applications. */
#  define TOVRA_API __attribute__((visibility("default")))
/** The calling convention of every function and callback of the interface: `__cdecl` on Windows. */
#  define TOVRA_CALL
#endif

/** @} */

#endif

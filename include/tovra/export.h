#ifndef TOVRA_EXPORT_H
#define TOVRA_EXPORT_H

/* TOVRA_API marks the library's public symbols; everything else is hidden. */
#if defined(_WIN32)
#  if defined(TOVRA_BUILDING)
#    define TOVRA_API __declspec(dllexport)
#  else
#    define TOVRA_API __declspec(dllimport)
#  endif
#  define TOVRA_CALL __cdecl
#else
#  define TOVRA_API __attribute__((visibility("default")))
#  define TOVRA_CALL
#endif

#endif

#pragma once

/// @file
/// The version of the library that a program runs with.

#include "Platform/KQExport.h"

extern "C" {

/// The library's identification, "@(#)PROGRAM:KQZip  PROJECT:KQZip-" and the version, with a line feed and a
/// NUL at the end. Identification tools find it in the finished library by its first four characters.
KQZIP_EXPORT extern const unsigned char KQZipVersionString[];

/// The library's version as a number, 1.0 for version 1.0.
KQZIP_EXPORT extern const double KQZipVersionNumber;
}

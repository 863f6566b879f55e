#pragma once

/// @file
/// The version of the library in use.

#include "Platform/KQExport.h"

extern "C" {

/// The library's identification: "@(#)PROGRAM:KQZip  PROJECT:KQZip-", the version, a line feed and a NUL.
/// Identification tools find it in the built library by its first four characters.
KQZIP_EXPORT extern const unsigned char KQZipVersionString[];

/// The library's version as a number: major and minor version, 1.0 for version 1.0.
KQZIP_EXPORT extern const double KQZipVersionNumber;
}

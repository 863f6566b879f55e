#pragma once

/// @file
/// What every exported declaration is marked with.

/// Marks what the shared library exports. Everything else is hidden, so that a host sees no name that
/// is not documented here.
#define KQZIP_EXPORT __attribute__((visibility("default")))

/// Marks a private member of an exported class that the shared library keeps to itself.
#define KQZIP_HIDDEN __attribute__((visibility("hidden")))

#pragma once

/// @file
/// The marks of exported declarations.

/// Marks a declaration that the shared library exports. Everything else is hidden, so that a host sees only
/// documented names.
#define KQZIP_EXPORT __attribute__((visibility("default")))

/// Marks a private member of an exported class that the shared library does not export.
#define KQZIP_HIDDEN __attribute__((visibility("hidden")))

#pragma once

/// @file
/// What of a library others may use.

/// Marks what a Ketra library offers to others; everything else is built with hidden visibility.
#define KTR_API __attribute__((visibility("default")))

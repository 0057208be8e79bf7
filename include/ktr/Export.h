#pragma once

/// Marks what a Ketra library offers to others; everything else is built with hidden visibility.
#define KTR_API __attribute__((visibility("default")))

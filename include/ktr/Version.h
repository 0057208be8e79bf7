#pragma once

/// @file
/// The version of what is installed.

/// The version of the kit that a plugin is compiled against: "major.minor.patch". Plugins of one
/// major and minor version run on a host of the same.
#define KTR_VERSION "0.1.0"

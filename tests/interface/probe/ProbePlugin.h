#pragma once

#include "ktr/PluginBase.h"

#include <cstddef>

/// What the probe plugin offers to tests besides a plugin's own entry points. Only C types travel,
/// so that a difference between compilers cannot spoil what is reported about it.
extern "C" {

/// Bytes that an object of the plugin takes.
KTR_API std::size_t probeSize();
/// Makes an object in `memory`, or with new if that is null.
KTR_API ktr::PluginBase* probeMake(void* memory);
/// What the plugin's objects went through since the last call, a line for each, oldest first. Valid
/// until the next call, which one thread at a time may make.
KTR_API const char* probeTakeNotes();
/// How the plugin's compiler lays out the classes of the interface.
KTR_API const char* probeLayout();
}

// Debug output: the Linux counterpart of the Windows debugger output channel.
//
// OutputDebugStringA hands a line of text to a process-wide sink. By default
// the sink is silent, unless the environment variable VEL_DEBUG_OUTPUT is set
// (to anything), in which case each message goes to stderr followed by a
// newline. Tests and applications can replace the sink to capture output.
// All functions are thread-safe; the sink is called without any library lock
// held, so a sink may itself call OutputDebugStringA or SetDebugOutputSink.
#pragma once

#include <functional>
#include <string>

#include "vel/Export.h"

namespace vel {

using TDebugOutputSink = std::function<void(const std::string&)>;

// Sends Msg to the current debug-output sink.
VEL_API void OutputDebugStringA(const std::string& Msg);

// True when OutputDebugStringA delivers messages anywhere: a sink is
// installed or VEL_DEBUG_OUTPUT is set. One relaxed atomic load, so code that
// traces on a hot path can skip building its message while output is silent.
VEL_API bool DebugOutputActive() noexcept;

// Installs Sink as the debug-output sink and returns the previous one.
// Passing an empty function restores the default sink (stderr when
// VEL_DEBUG_OUTPUT is set, silent otherwise).
VEL_API TDebugOutputSink SetDebugOutputSink(TDebugOutputSink Sink);

}  // namespace vel

// Process-wide debug-output sink.
#include "vel/rtl/Debug.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace vel {

namespace {

// The sink is held through a shared_ptr so a caller can copy it out under the
// lock and invoke it afterwards: a slow sink never blocks SetDebugOutputSink,
// and a sink replaced while in use stays alive until its call returns.
struct SinkState {
  std::mutex Lock;
  std::shared_ptr<const TDebugOutputSink> Sink;
};

SinkState& State() {
  static SinkState S;
  return S;
}

bool DefaultEnabled() {
  static const bool Enabled = std::getenv("VEL_DEBUG_OUTPUT") != nullptr;
  return Enabled;
}

// Set while a sink is installed.
std::atomic<bool> SinkInstalled{false};

void DefaultSink(const std::string& Msg) {
  if (!DefaultEnabled()) return;
  // One fwrite per message keeps lines from different threads whole.
  std::string Line = Msg;
  Line.push_back('\n');
  std::fwrite(Line.data(), 1, Line.size(), stderr);
  std::fflush(stderr);
}

}  // namespace

void OutputDebugStringA(const std::string& Msg) {
  std::shared_ptr<const TDebugOutputSink> Sink;
  {
    SinkState& S = State();
    std::lock_guard<std::mutex> G(S.Lock);
    Sink = S.Sink;
  }
  if (Sink && *Sink)
    (*Sink)(Msg);
  else
    DefaultSink(Msg);
}

bool DebugOutputActive() noexcept {
  return SinkInstalled.load(std::memory_order_relaxed) || DefaultEnabled();
}

TDebugOutputSink SetDebugOutputSink(TDebugOutputSink Sink) {
  std::shared_ptr<const TDebugOutputSink> Next;
  if (Sink) Next = std::make_shared<const TDebugOutputSink>(std::move(Sink));
  std::shared_ptr<const TDebugOutputSink> Prev;
  {
    SinkState& S = State();
    std::lock_guard<std::mutex> G(S.Lock);
    Prev = std::move(S.Sink);
    S.Sink = std::move(Next);
    SinkInstalled.store(S.Sink != nullptr, std::memory_order_relaxed);
  }
  return Prev ? *Prev : TDebugOutputSink();
}

}  // namespace vel

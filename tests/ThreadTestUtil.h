// Helpers of the tests that start threads which report to the main thread.
#pragma once

#include <chrono>
#include <functional>

#include "vel/rtl/Messages.h"

namespace threadtest {

// Waits for Done while serving the main thread's Synchronize requests;
// false when Seconds pass first.
inline bool WaitServing(const std::function<bool()>& Done, int Seconds = 60) {
  const auto End = std::chrono::steady_clock::now() + std::chrono::seconds(Seconds);
  while (!Done()) {
    if (std::chrono::steady_clock::now() > End) return false;
    vel::CheckSynchronize(5);
  }
  return true;
}

}  // namespace threadtest

// Helpers shared by the message, thread, notification and list tests:
// serving the main thread while waiting (also for the database and COM
// thread tests) and collecting the message boxes the application would show.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"

namespace veltest {

// Serves the main thread's side (Synchronize requests and posted messages)
// until Done holds or Ms milliseconds have passed; returns Done().
inline bool PumpUntil(const std::function<bool()>& Done, int Ms = 10000) {
  const auto End = std::chrono::steady_clock::now() + std::chrono::milliseconds(Ms);
  while (!Done()) {
    if (std::chrono::steady_clock::now() > End) return false;
    vel::Application->ProcessMessages();
    vel::CheckSynchronize(2);
  }
  return true;
}

// Waits for Done while serving only the main thread's Synchronize requests
// (no posted messages); false when Seconds pass first.
inline bool WaitServing(const std::function<bool()>& Done, int Seconds = 60) {
  const auto End = std::chrono::steady_clock::now() + std::chrono::seconds(Seconds);
  while (!Done()) {
    if (std::chrono::steady_clock::now() > End) return false;
    vel::CheckSynchronize(5);
  }
  return true;
}

using vel_test::ErrorOf;

// Collects message boxes as "<caption>|<text>|<type>" while it lives.
struct TDialogLog {
  std::mutex Lock;
  std::vector<std::string> Lines;
  vel::TDialogSink Old;
  TDialogLog() {
    Old = vel::SetDialogSink(
        [this](const std::string& Text, const std::string& Caption, vel::UINT Type) {
          std::lock_guard<std::mutex> L(Lock);
          Lines.push_back(Caption + "|" + Text + "|" + std::to_string(Type));
          return vel::IDOK;
        });
  }
  ~TDialogLog() { vel::SetDialogSink(Old); }
  size_t Count() {
    std::lock_guard<std::mutex> L(Lock);
    return Lines.size();
  }
  std::string Line(size_t I) {
    std::lock_guard<std::mutex> L(Lock);
    return I < Lines.size() ? Lines[I] : std::string();
  }
};

}  // namespace veltest

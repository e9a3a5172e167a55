// The main thread's loop: Application->Run() where Delphi had
// Application.Run, or the wake-up descriptor inside another loop.
#include <poll.h>

#include "vel/rtl/Messages.h"

using namespace vel;

void RunLikeDelphi() {
  Application->Run();  // until Application->Terminate()
}

// Inside a poll() loop that also watches the application's own descriptor.
void RunInOwnLoop(int OwnFd, bool (*HandleOwn)(int Fd)) {
  pollfd Fds[] = {{MainThreadWakeupFd(), POLLIN, 0}, {OwnFd, POLLIN, 0}};
  while (!Application->Terminated()) {
    if (poll(Fds, 2, -1) < 0) continue;
    if (Fds[0].revents & POLLIN) Application->ProcessMessages();
    if ((Fds[1].revents & POLLIN) && !HandleOwn(OwnFd)) break;
  }
}

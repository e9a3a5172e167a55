// TMemoryMapFile: messages with the file name, creation, read-only pages that
// fault when written (in a child process), shared writes reaching the file,
// the 4 GiB limit, and no descriptor left open by any path.
#include <gtest/gtest.h>

// Before <fcntl.h>, whose LOCK_WRITE macro would clash with the COM header's
// constant of that name.
#include "storage_test_util.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "TestSupport.h"
#include "vel/ExtendedClasses.h"
#include "vel/rtl/Streams.h"

using namespace vel;
namespace fs = std::filesystem;

namespace {

// A scratch folder per case, and no descriptor left open by the case.
class MemoryMap : public storage_test::ScratchDir {
 protected:
  void SetUp() override {
    ScratchDir::SetUp();
    FdsAtStart = OpenFds();
  }
  void TearDown() override {
    EXPECT_EQ(OpenFds(), FdsAtStart) << "a descriptor was left open";
    ScratchDir::TearDown();
  }
  static size_t OpenFds() {
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
  }
  template <class F>
  static std::string ErrorOf(F&& Fn) {
    const std::string E = storage_test::ErrorOf(Fn);
    return E.rfind("EMemoryMapFile: ", 0) == 0 ? E.substr(16) : E;
  }
  size_t FdsAtStart = 0;
};

}  // namespace

TEST_F(MemoryMap, FailuresNameTheFileAndReleaseEverything) {
  const std::string Missing = Path("missing.bin");
  EXPECT_EQ(ErrorOf([&] { TMemoryMapFile M(Missing, fmOpenRead, 0); }),
            "Unable to load file " + Missing + " for memory mapping");

  vel_test::WriteFile(Path("data.bin"), "content");
  const std::string Data = Path("data.bin");
  // Pages for writing need a file opened for reading and writing.
  for (const int32_t Mode : {int32_t(fmOpenWrite), int32_t(fmOpenRead | fmShareDenyNone)}) {
    EXPECT_EQ(ErrorOf([&] { TMemoryMapFile M(Data, Mode, 0); }), "Unable to Map File " + Data)
        << Mode;
  }
  EXPECT_EQ(ErrorOf([&] { TMemoryMapFile M(Data, 3, 0); }),
            "Unable to load file " + Data + " for memory mapping");

  // Creating truncates; an empty file cannot be mapped and stays behind.
  EXPECT_EQ(ErrorOf([&] { TMemoryMapFile M(Data, mmCreate, 0); }), "Unable to Map File " + Data);
  EXPECT_TRUE(fs::exists(Data));
  EXPECT_EQ(fs::file_size(Data), 0u);
  const std::string Fresh = Path("fresh.bin");
  EXPECT_EQ(ErrorOf([&] { TMemoryMapFile M(Fresh, mmCreate, 0); }), "Unable to Map File " + Fresh);
  EXPECT_TRUE(fs::exists(Fresh));
}

TEST_F(MemoryMap, ReadOnlyViewFaultsOnWrite) {
  vel_test::WriteFile(Path("ro.bin"), "read only bytes");
  TMemoryMapFile M(Path("ro.bin"), fmOpenRead, 0);
  ASSERT_NE(M.Data(), nullptr);
  EXPECT_EQ(M.FileSize(), 15u);
  EXPECT_EQ(std::string(static_cast<const char*>(M.Data()), M.FileSize()), "read only bytes");

  const pid_t Child = ::fork();
  ASSERT_GE(Child, 0);
  if (Child == 0) {
    // The default action, whatever handler a sanitizer installed.
    struct sigaction Dfl {};
    Dfl.sa_handler = SIG_DFL;
    ::sigaction(SIGSEGV, &Dfl, nullptr);
    ::sigaction(SIGBUS, &Dfl, nullptr);
    static_cast<volatile char*>(M.Data())[0] = 'X';
    ::_exit(0);
  }
  int Status = 0;
  ASSERT_EQ(::waitpid(Child, &Status, 0), Child);
  ASSERT_TRUE(WIFSIGNALED(Status)) << "the write did not fault";
  EXPECT_TRUE(WTERMSIG(Status) == SIGSEGV || WTERMSIG(Status) == SIGBUS);
  EXPECT_EQ(vel_test::ReadFile(Path("ro.bin")), "read only bytes");
}

TEST_F(MemoryMap, ReadWriteViewChangesTheFileAndIgnoresGrowth) {
  vel_test::WriteFile(Path("rw.bin"), "abcdef");
  {
    TMemoryMapFile M(Path("rw.bin"), fmOpenReadWrite, 0);
    EXPECT_EQ(M.Mode(), fmOpenReadWrite);
    std::memcpy(M.Data(), "XY", 2);
    std::ofstream(Path("rw.bin"), std::ios::binary | std::ios::app) << "more";
    EXPECT_EQ(M.FileSize(), 6u);
  }
  EXPECT_EQ(vel_test::ReadFile(Path("rw.bin")), "XYcdefmore");
}

TEST_F(MemoryMap, FilesOf4GiBAreRefused) {
  const std::string Big = Path("big.bin");
  const int Fd = ::open(Big.c_str(), O_CREAT | O_RDWR, 0644);
  ASSERT_GE(Fd, 0);
  const bool Sized = ::ftruncate(Fd, off_t(1) << 32) == 0;
  ::close(Fd);
  if (!Sized) GTEST_SKIP() << "the file system cannot hold a sparse 4 GiB file";
  EXPECT_EQ(ErrorOf([&] { TMemoryMapFile M(Big, fmOpenRead, 0); }),
            "Unable to Map File " + Big + ": files of 4 GiB or more cannot be mapped");
}

// TTextStream: the text helpers' exact bytes in a real file, the date and
// time separators, and opening failures.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "TestSupport.h"
#include "storage_test_util.h"
#include "vel/ExStreams.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

class TextStreamFiles : public storage_test::ScratchDir {
 protected:
  void SetUp() override {
    ScratchDir::SetUp();
    Saved = FormatSettings;
  }
  void TearDown() override {
    FormatSettings = Saved;
    ScratchDir::TearDown();
  }
  std::string Get(const std::string& Name) { return vel_test::ReadFile(Path(Name)); }
  TFormatSettings Saved;
};

// A descendant that writes a file header.
class THeaderStream : public TTextStream {
 public:
  THeaderStream(const std::string& Name, uint16_t Mode, uint32_t Rights)
      : TTextStream(Name, Mode, Rights) {
    WriteSignature();
  }
  void WriteSignature() override { WriteString("HDR1"); }
};

}  // namespace

TEST_F(TextStreamFiles, HelpersWriteExactBytes) {
  {
    TTextStream S(Path("a.txt"), fmCreate);
    S.WriteString("abc");
    S.WriteString("");
    S.WriteNewLine("   ");  // blank: nothing
    S.WriteNewLine("\t\r\n");
    S.WriteNewLine(" a");  // a break, then the text untrimmed
    S.WriteIdent("Tag");
    S.WriteIdent("");
    for (const int32_t N : {-42, 2147483647}) {
      S.WriteInteger(N);
      S.WriteString("|");
    }
    for (const long double F : {0.1L, 1e20L, -2.5L}) {
      S.WriteFloat(F);
      S.WriteString("|");
    }
  }
  EXPECT_EQ(Get("a.txt"), "abc\r a<Tag><>-42|2147483647|0.1|1E20|-2.5|");
}

TEST_F(TextStreamFiles, DatesUseTheRuntimeSeparators) {
  TDateTime When = ComposeDateTime(EncodeDate(2003, 7, 4), EncodeTime(9, 5, 6, 700));
  {
    TTextStream S(Path("d.txt"), fmCreate);
    S.WriteDateTime(When);
    S.WriteString(" ");
    S.WriteDate(When);
    FormatSettings.DateSeparator = '.';
    FormatSettings.TimeSeparator = '-';
    S.WriteString(" ");
    S.WriteDateTime(When);
    FormatSettings.ShortDateFormat = "yyyy/mm/dd";
    S.WriteString(" ");
    S.WriteDate(EncodeDate(1999, 12, 31));
    S.WriteString(" ");
    S.WriteDateTime(EncodeDate(1999, 12, 31));  // midnight still shows its time
  }
  EXPECT_EQ(Get("d.txt"),
            "04/07/2003 09:05:06 04/07/2003 04.07.2003 09-05-06 1999.12.31 31.12.1999 00-00-00");
}

TEST_F(TextStreamFiles, ConstructorsAndOpenModes) {
  // The three-argument form calls WriteSignature, which writes nothing
  // here; its Rights are not used for the new file.
  ::mode_t Old = ::umask(022);
  { TTextStream S(Path("r.txt"), fmCreate, 0600); }
  { TTextStream S(Path("q.txt"), fmCreate); }
  ::umask(Old);
  struct stat R, Q;
  ASSERT_EQ(::stat(Path("r.txt").c_str(), &R), 0);
  ASSERT_EQ(::stat(Path("q.txt").c_str(), &Q), 0);
  EXPECT_EQ(R.st_size, 0);
  EXPECT_EQ(R.st_mode & 0777, Q.st_mode & 0777);

  // A descendant's header, written by its own constructor.
  { THeaderStream H(Path("h.txt"), fmCreate, 0); }
  EXPECT_EQ(Get("h.txt"), "HDR1");

  // Reopened for writing: text goes over the start of the file.
  {
    TTextStream S(Path("h.txt"), fmOpenReadWrite | fmShareExclusive);
    S.WriteString("ab");
  }
  EXPECT_EQ(Get("h.txt"), "abR1");
}

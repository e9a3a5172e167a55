// The compound-file example: a client document made in the temporary
// folder, filled through paths (a notes stream, a list of holdings, a
// stream at the root), listed, saved compacted under its own name, and read
// back. The file name may be given as the only argument; it is removed at
// the end unless it was given.
//
// Exits with 0 when everything read back is what was written.
#include <cstdio>
#include <memory>
#include <string>

#include "vel/OleStorage.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

class TPrintTree : public TInterfacedObject, public IDisplayStorageTree {
  VEL_CLASS(TPrintTree, TInterfacedObject)
  VEL_INTERFACES(IDisplayStorageTree)
 public:
  void BeginDisplay(const std::string& RootName) override {
    std::printf("%s\n", RootName.c_str());
  }
  void DisplayElement(const TElementInfo& Info) override {
    std::printf("%*s%s%s (%llu bytes)\n", Info.Depth * 2, "", Info.Name.c_str(),
                Info.ElementType == STGTY_STORAGE ? "\\" : "",
                static_cast<unsigned long long>(Info.Size));
  }
  void EndDisplay() override {}
};

}  // namespace

VEL_IMPLEMENT(TPrintTree)

int main(int argc, char** argv) {
  try {
    std::unique_ptr<TOleRootStorage> Doc;
    if (argc > 1) Doc.reset(TOleRootStorage::Open(argv[1], 0x12, true));
    else Doc.reset(TOleRootStorage::New(0x12));
    const std::string FileName = Doc->FileName();

    TStringList Holdings;
    Holdings.Add("Global Equity Fund=12500.00");
    Holdings.Add("Euro Bond Fund=8200.50");
    WriteStringsToStream(Doc.get(), "Clients\\1234\\Holdings", &Holdings);
    TStringStream Notes("Met on 2004-05-06; prefers low risk.");
    WriteStreamByPath(Doc.get(), "Clients\\1234\\Notes", &Notes);
    TStringStream Version("2");
    WriteStreamByPath(Doc.get(), "Version", &Version);

    IPtr<IDisplayStorageTree> Tree(new TPrintTree);
    DisplayFileStructure(Doc.get(), Tree);
    Doc->Save(FileName, false);

    TStringList Streams, Back;
    ContentsByPath(Doc.get(), "Clients\\1234", &Streams);
    ReadStringsFromStream(Doc.get(), "Clients\\1234\\Holdings", &Back, false);
    TStringStream Read("");
    LoadStreamByPath(Doc.get(), "Clients\\1234\\Notes", &Read);
    std::printf("streams of Clients\\1234: %s\n", Streams.CommaText().c_str());
    std::printf("holdings: %s\n", Back.CommaText().c_str());
    const bool Ok = Streams.Count() == 2 && Back.Equals(&Holdings) &&
                    Read.DataString() == Notes.DataString();
    Doc.reset();
    if (argc <= 1) DeleteFile(FileName);
    std::printf("%s\n", Ok ? "read back as written" : "MISMATCH");
    return Ok ? 0 : 1;
  } catch (const Exception& E) {
    std::fprintf(stderr, "vel_olestorage_demo: %s\n", E.Message().c_str());
    return 1;
  }
}

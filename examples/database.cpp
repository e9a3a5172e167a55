// A database thread: creates an SQLite file of client holdings, then a
// TAdoSTAThread descendant runs one query on its own thread and hands the
// rows to the main thread, which prints them.
//
//   vel_database [FILE]      default: $TMPDIR/vel_database_demo.db
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vel/OleUtils.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

// Reads every row of the result set on the worker and keeps it as text.
class THoldingsReader : public TAdoSTAThread {
  VEL_CLASS(THoldingsReader, TAdoSTAThread)
 public:
  THoldingsReader(const std::string& File, std::vector<std::string>* Lines, bool* Done)
      : TAdoSTAThread(true, "", "", "Data Source=" + File,
                      "SELECT client, fund, units, price FROM holdings ORDER BY client, fund"),
        FLines(Lines),
        FDone(Done) {
    Resume();
  }
  ~THoldingsReader() override {
    StopThread(false);
    // Freed on the worker when it ends; tell the main thread.
    TThread::Synchronize(nullptr, [D = FDone] { *D = true; });
  }

 protected:
  void ProcessResultSet(TADODataSet* DS) override {
    for (; !DS->Eof(); DS->Next()) {
      double Units = DS->FieldByName("units").AsDouble();
      double Price = DS->FieldByName("price").AsDouble();
      FLines->push_back(Format("%-10s %-22s %10.2f x %8.2f = %12.2f",
                               {DS->FieldByName("client").AsString(), DS->Fields(1).AsString(),
                                Units, Price, Units * Price}));
    }
  }

 private:
  std::vector<std::string>* FLines;
  bool* FDone;
};

}  // namespace

VEL_IMPLEMENT(THoldingsReader)

int main(int argc, char** argv) {
  const char* Tmp = std::getenv("TMPDIR");
  std::string File = argc > 1 ? argv[1]
                              : std::string(Tmp && *Tmp ? Tmp : "/tmp") + "/vel_database_demo.db";
  std::remove(File.c_str());
  {
    TADOConnection C;
    C.ConnectionString = "Data Source=" + File + ";Create=True";
    C.Open();
    C.Execute("CREATE TABLE holdings (client TEXT, fund TEXT, units REAL, price REAL)");
    C.Execute("INSERT INTO holdings VALUES ('Smith', 'Global Equity Income', 1200, 3.41),"
              " ('Smith', 'Sterling Bond', 800.5, 1.07), ('Jones', 'Asia Pacific', 310, 12.9),"
              " ('Jones', 'UK Smaller Companies', 95.25, 28.4)");
  }
  std::vector<std::string> Lines;
  bool Done = false;
  new THoldingsReader(File, &Lines, &Done);
  while (!Done) CheckSynchronize(10);
  std::printf("%zu holdings read from %s by a database thread:\n", Lines.size(), File.c_str());
  for (const std::string& L : Lines) std::printf("  %s\n", L.c_str());
  std::remove(File.c_str());
  return Lines.size() == 4 ? 0 : 1;
}

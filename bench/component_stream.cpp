// Writing and reading a component stream of a component whose collection
// holds 100,000 items of 8 non-default properties each (two integers, two
// strings of 12 characters, a double, a boolean, an enumeration and a
// TDateTime), against a hand-written encoder and decoder of the same bytes
// measured in the same run.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "vel/rtl/Filer.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

enum TBenchMode : uint8_t { bmOff, bmOn, bmAuto };
VEL_ENUM(TBenchMode, "bmOff", "bmOn", "bmAuto")

class TBenchItem : public TCollectionItem {
  VEL_CLASS(TBenchItem, TCollectionItem)
 public:
  using TCollectionItem::TCollectionItem;
  int32_t Id = 0;
  int32_t Count = 0;
  std::string Name;
  std::string Code;
  double Amount = 0;
  bool Active = false;
  TBenchMode Mode = bmOff;
  TDateTime Stamp;
};

class TBenchRoot : public TComponent {
  VEL_CLASS(TBenchRoot, TComponent)
 public:
  using TComponent::TComponent;
  ~TBenchRoot() override { delete Items; }
  TCollection* Items = new TCollection(TBenchItem::StaticClass());
};

}  // namespace

VEL_PUBLISHED(TBenchItem, prop("Id", &TBenchItem::Id), prop("Count", &TBenchItem::Count),
              prop("Name", &TBenchItem::Name), prop("Code", &TBenchItem::Code),
              prop("Amount", &TBenchItem::Amount), prop("Active", &TBenchItem::Active).defaults(false),
              prop("Mode", &TBenchItem::Mode).defaults(bmOff), prop("Stamp", &TBenchItem::Stamp))
VEL_PUBLISHED(TBenchRoot, readonly_prop("Items", &TBenchRoot::Items))

namespace {

constexpr int kItems = 100000;

// The plain data of one item, for the hand-written baseline.
struct Row {
  int32_t Id, Count;
  std::string Name, Code;
  double Amount;
  bool Active;
  TBenchMode Mode;
  double Stamp;
};

Row MakeRow(int I) {
  char Name[16], Code[16];
  std::snprintf(Name, sizeof Name, "Name-%07d", I);
  std::snprintf(Code, sizeof Code, "CODE%08d", I * 7);
  return Row{I + 1, (I % 1000) * 300, Name, Code, I * 1.25 + 0.5, true,
             I % 2 ? bmOn : bmAuto, 45000.0 + I / 86400.0};
}

TBenchRoot* MakeRoot() {
  auto* R = new TBenchRoot;
  R->SetName("Root");
  R->Items->BeginUpdate();
  for (int I = 0; I < kItems; ++I) {
    const Row W = MakeRow(I);
    auto* It = static_cast<TBenchItem*>(R->Items->Add());
    It->Id = W.Id;
    It->Count = W.Count;
    It->Name = W.Name;
    It->Code = W.Code;
    It->Amount = W.Amount;
    It->Active = W.Active;
    It->Mode = W.Mode;
    It->Stamp = TDateTime(W.Stamp);
  }
  R->Items->EndUpdate();
  return R;
}

const std::vector<Row>& Rows() {
  static const std::vector<Row> R = [] {
    std::vector<Row> V;
    V.reserve(kItems);
    for (int I = 0; I < kItems; ++I) V.push_back(MakeRow(I));
    return V;
  }();
  return R;
}

// The hand-written encoder: the same bytes, knowing the layout in advance.
class TBaselineEncoder {
 public:
  std::vector<uint8_t> Out;
  void Byte(uint8_t B) { Out.push_back(B); }
  void Bytes(const void* P, size_t N) {
    auto* B = static_cast<const uint8_t*>(P);
    Out.insert(Out.end(), B, B + N);
  }
  void Short(std::string_view S) {
    Byte(static_cast<uint8_t>(S.size()));
    Bytes(S.data(), S.size());
  }
  void Int(int32_t V) {
    if (V >= -128 && V <= 127) {
      Byte(vaInt8);
      Byte(static_cast<uint8_t>(V));
    } else if (V >= -32768 && V <= 32767) {
      Byte(vaInt16);
      Byte(static_cast<uint8_t>(V));
      Byte(static_cast<uint8_t>(V >> 8));
    } else {
      Byte(vaInt32);
      for (int K = 0; K < 4; ++K) Byte(static_cast<uint8_t>(V >> (8 * K)));
    }
  }
  void Encode(const std::vector<Row>& Rows) {
    Out.clear();
    Bytes("TPF0", 4);
    Short("TBenchRoot");
    Short("Root");
    Short("Items");
    Byte(vaCollection);
    static const char* Modes[] = {"bmOff", "bmOn", "bmAuto"};
    for (const Row& R : Rows) {
      Byte(vaList);
      Short("Id");
      Int(R.Id);
      Short("Count");
      Int(R.Count);
      Short("Name");
      Byte(vaString);
      Short(R.Name);
      Short("Code");
      Byte(vaString);
      Short(R.Code);
      Short("Amount");
      Byte(vaExtended);
      uint8_t X[10];
      DoubleToExtendedBytes(R.Amount, X);
      Bytes(X, 10);
      Short("Active");
      Byte(R.Active ? vaTrue : vaFalse);
      Short("Mode");
      Byte(vaIdent);
      Short(Modes[R.Mode]);
      Short("Stamp");
      Byte(vaDate);
      Bytes(&R.Stamp, 8);
      Byte(vaNull);
    }
    Byte(vaNull);
    Byte(vaNull);
    Byte(vaNull);
  }
};

// The hand-written decoder: parses the known layout into rows.
bool DecodeBaseline(const uint8_t* P, const uint8_t* End, std::vector<Row>& Rows) {
  auto Need = [&](size_t N) { return static_cast<size_t>(End - P) >= N; };
  auto SkipShort = [&] {
    if (!Need(1) || !Need(1 + *P)) return false;
    P += 1 + *P;
    return true;
  };
  auto ReadShort = [&](std::string& S) {
    if (!Need(1) || !Need(1 + *P)) return false;
    S.assign(reinterpret_cast<const char*>(P + 1), *P);
    P += 1 + *P;
    return true;
  };
  auto ReadInt = [&](int32_t& V) {
    if (!Need(1)) return false;
    const uint8_t T = *P++;
    if (T == vaInt8 && Need(1)) V = static_cast<int8_t>(*P++);
    else if (T == vaInt16 && Need(2)) {
      V = static_cast<int16_t>(P[0] | (P[1] << 8));
      P += 2;
    } else if (T == vaInt32 && Need(4)) {
      std::memcpy(&V, P, 4);
      P += 4;
    } else {
      return false;
    }
    return true;
  };
  if (!Need(4) || std::memcmp(P, "TPF0", 4) != 0) return false;
  P += 4;
  if (!SkipShort() || !SkipShort() || !SkipShort() || !Need(1) || *P++ != vaCollection) return false;
  Rows.clear();
  std::string Mode;
  while (Need(1) && *P == vaList) {
    ++P;
    Row R{};
    uint8_t X[10];
    if (!SkipShort() || !ReadInt(R.Id) || !SkipShort() || !ReadInt(R.Count)) return false;
    if (!SkipShort() || !Need(1) || *P++ != vaString || !ReadShort(R.Name)) return false;
    if (!SkipShort() || !Need(1) || *P++ != vaString || !ReadShort(R.Code)) return false;
    if (!SkipShort() || !Need(11) || *P++ != vaExtended) return false;
    std::memcpy(X, P, 10);
    P += 10;
    R.Amount = static_cast<double>(BytesToExtended(X));
    if (!SkipShort() || !Need(1)) return false;
    R.Active = *P++ == vaTrue;
    if (!SkipShort() || !Need(1) || *P++ != vaIdent || !ReadShort(Mode)) return false;
    R.Mode = Mode == "bmOn" ? bmOn : Mode == "bmAuto" ? bmAuto : bmOff;
    if (!SkipShort() || !Need(9) || *P++ != vaDate) return false;
    std::memcpy(&R.Stamp, P, 8);
    P += 8;
    if (!Need(1) || *P++ != vaNull) return false;
    Rows.push_back(std::move(R));
  }
  return Need(3);
}

std::vector<uint8_t> WrittenBytes() {
  static const std::vector<uint8_t> B = [] {
    RegisterClass(TBenchRoot::StaticClass());
    std::unique_ptr<TBenchRoot> R(MakeRoot());
    TMemoryStream M;
    WriteComponent(&M, R.get());
    auto* P = static_cast<const uint8_t*>(M.Memory());
    return std::vector<uint8_t>(P, P + M.GetSize());
  }();
  return B;
}

void BM_WriteComponent(benchmark::State& State) {
  std::unique_ptr<TBenchRoot> R(MakeRoot());
  TMemoryStream M;
  M.SetCapacity(static_cast<int64_t>(WrittenBytes().size()) + 4096);
  for (auto _ : State) {
    M.SetPosition(0);
    WriteComponent(&M, R.get());
    benchmark::DoNotOptimize(M.Memory());
  }
  if (std::vector<uint8_t>(static_cast<const uint8_t*>(M.Memory()),
                           static_cast<const uint8_t*>(M.Memory()) + M.GetSize()) != WrittenBytes())
    State.SkipWithError("the writer's bytes changed between runs");
  State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) * M.GetSize());
}
BENCHMARK(BM_WriteComponent)->Unit(benchmark::kMillisecond);

void BM_WriteBaseline(benchmark::State& State) {
  TBaselineEncoder E;
  E.Out.reserve(WrittenBytes().size() + 4096);
  for (auto _ : State) {
    E.Encode(Rows());
    benchmark::DoNotOptimize(E.Out.data());
  }
  if (E.Out != WrittenBytes()) State.SkipWithError("the baseline does not write the same bytes");
  State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) * static_cast<int64_t>(E.Out.size()));
}
BENCHMARK(BM_WriteBaseline)->Unit(benchmark::kMillisecond);

void BM_ReadComponent(benchmark::State& State) {
  const std::vector<uint8_t>& B = WrittenBytes();
  for (auto _ : State) {
    State.PauseTiming();
    auto Root = std::make_unique<TBenchRoot>();
    State.ResumeTiming();
    TReadOnlyMemoryStream M(B.data(), static_cast<int64_t>(B.size()));
    ReadComponent(&M, Root.get());
    benchmark::DoNotOptimize(Root->Items->Count());
    State.PauseTiming();
    if (Root->Items->Count() != kItems ||
        static_cast<TBenchItem*>(Root->Items->Items(kItems - 1))->Code != Rows().back().Code)
      State.SkipWithError("read back wrong");
    Root.reset();
    State.ResumeTiming();
  }
  State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) * static_cast<int64_t>(B.size()));
}
BENCHMARK(BM_ReadComponent)->Unit(benchmark::kMillisecond);

void BM_ReadBaseline(benchmark::State& State) {
  const std::vector<uint8_t>& B = WrittenBytes();
  std::vector<Row> Out;
  for (auto _ : State) {
    State.PauseTiming();
    Out = std::vector<Row>();
    State.ResumeTiming();
    if (!DecodeBaseline(B.data(), B.data() + B.size(), Out)) State.SkipWithError("baseline decode failed");
    benchmark::DoNotOptimize(Out.data());
  }
  if (Out.size() != static_cast<size_t>(kItems) || Out.back().Code != Rows().back().Code)
    State.SkipWithError("baseline read back wrong");
  State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) * static_cast<int64_t>(B.size()));
}
BENCHMARK(BM_ReadBaseline)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// Writing and reading a root whose collection holds 100,000 items with 8
// non-default properties each, through TBinaryStreamer and through a
// hand-written encoder and decoder of the same bytes (the baseline, in the
// same run).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "holdings.h"
#include "vel/StreamClasses.h"

using namespace vel;

namespace {

// --- The baseline: the same bytes, written and parsed by hand.

struct Out {
  std::string B;
  void Raw(const void* P, size_t N) { B.append(static_cast<const char*>(P), N); }
  void U8(uint8_t V) { B.push_back(static_cast<char>(V)); }
  void Str(const std::string& S) {
    U8(0);
    U8(static_cast<uint8_t>(S.size()));
    B += S;
  }
  void Int(int32_t V) {
    if (V >= -128 && V <= 127) {
      U8(0);
      U8(static_cast<uint8_t>(V));
    } else if (V >= -32768 && V <= 32767) {
      U8(1);
      int16_t W = static_cast<int16_t>(V);
      Raw(&W, 2);
    } else {
      U8(2);
      Raw(&V, 4);
    }
  }
  void Begin() { Raw("\x02\x00\x01<", 4); }
  void End() { Raw("\x02\x00\x01>", 4); }
};

void HandEncode(TBenchRoot& R, TStream& S) {
  Out O;
  O.B.reserve(8 << 20);
  O.Str("TBenchRoot");
  O.Begin();
  O.Str("Items");
  O.Begin();
  O.U8(3);
  O.Int(R.Items->Count());
  for (int I = 0; I < R.Items->Count(); ++I) {
    auto* It = static_cast<TBenchItem*>(R.Items->Items(I));
    O.Begin();
    O.Str("Active");
    O.U8(It->Active ? 1 : 0);
    O.Str("Code");
    O.Str(It->Code);
    O.Str("Id");
    O.Int(It->Id);
    O.Str("Kind");
    O.Int(It->Kind);
    O.Str("Label");
    O.Str(It->Label);
    O.Str("Price");
    O.Raw(&It->Price, 8);
    O.Str("Since");
    O.Raw(&It->Since.Value, 8);
    O.Str("Units");
    O.Int(It->Units);
    O.End();
  }
  O.End();
  O.End();
  S.WriteBuffer(O.B.data(), static_cast<int64_t>(O.B.size()));
}

struct In {
  const uint8_t* P;
  const uint8_t* E;
  void Need(size_t N) {
    if (static_cast<size_t>(E - P) < N) throw EReadError("Stream read error");
  }
  uint8_t U8() {
    Need(1);
    return *P++;
  }
  std::string_view Str() {
    Need(2);
    size_t L = P[1];
    P += 2;
    Need(L);
    std::string_view V(reinterpret_cast<const char*>(P), L);
    P += L;
    return V;
  }
  int32_t Int() {
    uint8_t T = U8();
    if (T == 0) return static_cast<int8_t>(U8());
    if (T == 1) {
      Need(2);
      int16_t V;
      std::memcpy(&V, P, 2);
      P += 2;
      return V;
    }
    Need(4);
    int32_t V;
    std::memcpy(&V, P, 4);
    P += 4;
    return V;
  }
  double Dbl() {
    Need(8);
    double D;
    std::memcpy(&D, P, 8);
    P += 8;
    return D;
  }
  bool Marker(char C) {
    Need(4);
    bool Ok = P[0] == 2 && P[3] == static_cast<uint8_t>(C);
    if (Ok) P += 4;
    return Ok;
  }
};

void HandDecode(TBenchRoot& R, TMemoryStream& S) {
  In I{static_cast<const uint8_t*>(S.Memory()),
       static_cast<const uint8_t*>(S.Memory()) + S.GetSize()};
  I.Str();
  I.Marker('<');
  I.Str();
  I.Marker('<');
  I.U8();
  int32_t Count = I.Int();
  for (int32_t K = 0; K < Count; ++K) {
    auto* It = static_cast<TBenchItem*>(R.Items->Add());
    I.Marker('<');
    while (!I.Marker('>')) {
      std::string_view N = I.Str();
      if (N == "Active") It->Active = I.U8() != 0;
      else if (N == "Code") It->Code = I.Str();
      else if (N == "Id") It->Id = I.Int();
      else if (N == "Kind") It->Kind = static_cast<TKind>(I.Int());
      else if (N == "Label") It->Label = I.Str();
      else if (N == "Price") It->Price = I.Dbl();
      else if (N == "Since") It->Since = TDateTime(I.Dbl());
      else if (N == "Units") It->Units = I.Int();
      else throw EStreamPropError("unknown");
    }
  }
}

struct Fixture {
  TBenchRoot Root;
  TMemoryStream Encoded;
  Fixture() {
    Fill(Root);
    TBinaryStreamer(&Encoded).SaveToStream(&Root);
    // The baseline must produce the very same bytes.
    TMemoryStream Hand;
    HandEncode(Root, Hand);
    if (Hand.GetSize() != Encoded.GetSize() ||
        std::memcmp(Hand.Memory(), Encoded.Memory(), static_cast<size_t>(Hand.GetSize())) != 0) {
      std::fprintf(stderr, "baseline bytes differ from the streamer's\n");
      std::abort();
    }
  }
};

Fixture& Data() {
  static Fixture F;
  return F;
}

}  // namespace



static void BM_Write_Streamer(benchmark::State& State) {
  Fixture& F = Data();
  for (auto _ : State) {
    TMemoryStream S;
    TBinaryStreamer(&S).SaveToStream(&F.Root);
    benchmark::DoNotOptimize(S.Memory());
  }
  State.SetBytesProcessed(State.iterations() * F.Encoded.GetSize());
}
BENCHMARK(BM_Write_Streamer)->Unit(benchmark::kMillisecond);

static void BM_Write_HandBaseline(benchmark::State& State) {
  Fixture& F = Data();
  for (auto _ : State) {
    TMemoryStream S;
    HandEncode(F.Root, S);
    benchmark::DoNotOptimize(S.Memory());
  }
  State.SetBytesProcessed(State.iterations() * F.Encoded.GetSize());
}
BENCHMARK(BM_Write_HandBaseline)->Unit(benchmark::kMillisecond);

static void BM_Read_Streamer(benchmark::State& State) {
  Fixture& F = Data();
  for (auto _ : State) {
    TBenchRoot R;
    F.Encoded.SetPosition(0);
    TBinaryStreamer(&F.Encoded).LoadFromStream(&R);
    if (R.Items->Count() != ItemCount) State.SkipWithError("wrong count");
  }
}
BENCHMARK(BM_Read_Streamer)->Unit(benchmark::kMillisecond);

static void BM_Read_HandBaseline(benchmark::State& State) {
  Fixture& F = Data();
  for (auto _ : State) {
    TBenchRoot R;
    HandDecode(R, F.Encoded);
    if (R.Items->Count() != ItemCount) State.SkipWithError("wrong count");
  }
}
BENCHMARK(BM_Read_HandBaseline)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

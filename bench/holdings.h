// The graph the streaming benchmarks write and read: a root whose
// collection holds 100,000 holdings with 8 non-default properties each.
// Included by one source file per program, each streaming benchmark and the
// XML streamer's test (it defines the classes' type information).
#pragma once

#include <cstdio>

#include "vel/StreamClasses.h"

namespace {

using namespace vel;

enum TKind : uint8_t { kdNone, kdBond, kdEquity, kdCash };
VEL_ENUM(TKind, "kdNone", "kdBond", "kdEquity", "kdCash")

class TBenchItem : public TCollectionItem {
  VEL_CLASS(TBenchItem, TCollectionItem)
 public:
  explicit TBenchItem(TCollection* C = nullptr) : TCollectionItem(C) {}
  int32_t Id = 0;
  int32_t Units = 0;
  std::string Code;
  std::string Label;
  double Price = 0;
  bool Active = false;
  TKind Kind = kdNone;
  TDateTime Since;
};

class TBenchRoot : public TPersistent {
  VEL_CLASS(TBenchRoot, TPersistent)
 public:
  ~TBenchRoot() override { delete Items; }
  TCollection* Items = new TCollection(TBenchItem::StaticClass());
};

constexpr int ItemCount = 100000;

void Fill(TBenchRoot& R) {
  for (int I = 0; I < ItemCount; ++I) {
    auto* It = static_cast<TBenchItem*>(R.Items->Add());
    It->Id = I + 1;
    It->Units = 1000 + I % 50000;
    char Buf[16];
    std::snprintf(Buf, sizeof Buf, "ISIN%08d", I);
    It->Code = Buf;
    std::snprintf(Buf, sizeof Buf, "Holding%05d", I % 100000);
    It->Label = Buf;
    It->Price = 1.25 + I * 0.01;
    It->Active = true;
    It->Kind = static_cast<TKind>(1 + I % 3);
    It->Since = TDateTime(37000.5 + I % 1000);
  }
}

}  // namespace

VEL_PUBLISHED(TBenchItem, prop("Id", &TBenchItem::Id).defaults(0),
              prop("Units", &TBenchItem::Units).defaults(0), prop("Code", &TBenchItem::Code),
              prop("Label", &TBenchItem::Label), prop("Price", &TBenchItem::Price),
              prop("Active", &TBenchItem::Active).defaults(false),
              prop("Kind", &TBenchItem::Kind).defaults(kdNone), prop("Since", &TBenchItem::Since))
VEL_PUBLISHED(TBenchRoot, prop("Items", &TBenchRoot::Items))

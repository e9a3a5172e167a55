// A hash table descendant with many buckets and FNV-1a over the key's string
// form, shared by the hash table tests and benchmark: it spreads a million
// keys where the byte-sum table's 256 buckets would not.
#pragma once

#include <cstdint>

#include "vel/velHash.h"

class TFnvTable : public vel::TCustomHashTable {
 public:
  int32_t HashSize() const override { return 65536; }
  int32_t HashFunc(const vel::Variant& Key) const override {
    uint32_t H = 2166136261u;
    for (const char C : vel::VarToStr(Key)) H = (H ^ static_cast<uint8_t>(C)) * 16777619u;
    return static_cast<int32_t>(H & 0xFFFF);
  }
};

// RegistryClasses: TCustomRegKey, the base of the suite's settings objects.
//
// A settings object keeps its published properties in a registry key (see
// RttiStrm). TCustomRegKey adds the hive it lives in: while the key of such
// an object is open, the property persistence reads it from RootKey()
// instead of the hive of the pass. The default is HKEY_LOCAL_MACHINE, the
// hive the settings registry reads, so that a whole settings tree lives in
// one hive unless a class says otherwise.
//
// Thread safety: none; one thread at a time per object.
#pragma once

#include "vel/rtl/Persistent.h"
#include "vel/rtl/Registry.h"

namespace vel {

class VEL_API TCustomRegKey : public TPersistent {
  VEL_CLASS(TCustomRegKey, TPersistent)
 public:
  TCustomRegKey() = default;
  ~TCustomRegKey() override;

  HKEY RootKey() const { return FRootKey; }
  void SetRootKey(HKEY Value) { FRootKey = Value; }

 private:
  HKEY FRootKey = HKEY_LOCAL_MACHINE;
};

}  // namespace vel

// Creates a runtime object through the installed library and prints its
// class name; the install check expects "TObject".
#include <cstdio>

#include "vel/rtl/System.h"

int main() {
  vel::TObject* Obj = new vel::TObject;
  std::printf("%s\n", Obj->ClassName().c_str());
  delete Obj;
  return 0;
}

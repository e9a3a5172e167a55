// TPosition declares its class reference with VEL_CLASS, but no source file
// defines it with VEL_PUBLISHED or VEL_IMPLEMENT: this program must not link.
#include "vel/rtl/Persistent.h"

class TPosition : public vel::TPersistent {
  VEL_CLASS(TPosition, vel::TPersistent)
 public:
  int Left = 0;
};

int main() {
  TPosition P;
  return P.Left;
}

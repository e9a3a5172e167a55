// ProdTree.bpl: a small plug-in package. Its two units count the products
// it offers when the package is initialised and forget them when it is
// finalised; the host finds out about it through the package manager and
// reads its version and package information from its resources.
#include <cstdio>

#include "vel/VelClassesLib.h"

namespace {

int gProducts = 0;

void InitProdTree() {
  gProducts = 3;
  std::printf("ProdTree: %d products ready\n", gProducts);
}

void DoneProdTree() {
  gProducts = 0;
}

void InitProdTreeView() {
  std::printf("ProdTreeView: view registered\n");
}

}  // namespace

VEL_PACKAGE_ENTRY(VEL_PACKAGE_UNIT("ProdTree", &InitProdTree, &DoneProdTree),
                  VEL_PACKAGE_UNIT("ProdTreeView", &InitProdTreeView, nullptr))

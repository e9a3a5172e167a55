// Run-time packages on Linux: ELF shared objects that keep their Windows
// names (ProdTree.bpl) and export Initialize, Finalize and
// GetPackageInfoTable. LoadPackageEx finds one by name, loads it and runs
// its Initialize; FindModuleFile is the search it uses, shared with the
// loaders of resource libraries.
//
// Thread safety: both functions are reentrant (the dynamic loader
// serialises loads).
#pragma once

#include <string>

#include "vel/Export.h"
#include "vel/rtl/Resources.h"

namespace vel {

using HMODULE = void*;

// The file a module name refers to: a name with a '/' is used as it is;
// otherwise the first existing file of that name in the folders of
// $VEL_PACKAGE_PATH (colon-separated), the system folder ($VEL_SYSTEM_DIR,
// else $XDG_DATA_HOME/velmont/system, else ~/.local/share/velmont/system)
// and the folder of the executable; in each folder the exact name first,
// then a file whose name differs only in letter case (Windows names).
// "" when none exists.
VEL_API std::string FindModuleFile(const std::string& Name);

// Loads the package Name (found by FindModuleFile) and runs its Initialize;
// returns the loader's handle. Raises EPackageError "Cannot load package
// %s: %s" with the loader's message when the file is not found or cannot
// be loaded, or when it has no Initialize entry; an exception from the
// package's initialisation unloads it again and passes on. The flag is the
// Windows loader's and has no meaning here. Packages are never unloaded by
// this library.
VEL_API HMODULE LoadPackageEx(const std::string& Name, bool Flag);

}  // namespace vel

// TClassTreeStreamer: the tree of nested objects by class name.
#include "vel/StreamClasses.h"

namespace vel {

VEL_IMPLEMENT(TClassTreeStreamer)

TClassTreeStreamer::TClassTreeStreamer(TStream* AStream) : TCustomTextStreamer(AStream) {
  // Only object properties are walked; values of other kinds never appear.
  FTypeKinds = TTypeKinds{tkClass};
  FIndentChar = '\t';
  FIndentSize = 1;
  FWantBlocks = false;
}

void TClassTreeStreamer::WriteClassName(TObject*, const std::string& Name) {
  if (!FStripPrefix || FPrefixLength <= 0) {
    WriteLine(Name);
    return;
  }
  size_t Cut = static_cast<size_t>(FPrefixLength);
  WriteLine(Cut >= Name.size() ? std::string_view() : std::string_view(Name).substr(Cut));
}

}  // namespace vel

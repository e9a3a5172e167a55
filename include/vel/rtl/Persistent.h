// TPersistent: the root of every class whose published properties are
// streamed, copied and persisted.
#pragma once

#include "vel/rtl/System.h"

namespace vel {

class TFiler;

class VEL_API TPersistent : public TObject {
  VEL_CLASS(TPersistent, TObject)
 public:
  TPersistent() = default;
  ~TPersistent() override;

  // Copies Source into this object. The base asks Source to AssignTo this
  // object; a class that knows how to copy overrides Assign or AssignTo.
  // Raises EConvertError "Cannot assign a <source> to a <dest>" when
  // neither side knows how.
  virtual void Assign(TPersistent* Source);
  // The name path used in messages ("Form1.Button1.Font").
  virtual std::string GetNamePath() const;

  // Lets a class stream data that is not a published property (component
  // streams call it through TFiler).
  virtual void DefineProperties(TFiler* Filer);

 protected:
  virtual void AssignTo(TPersistent* Dest);
  virtual TPersistent* GetOwner() const;
};

}  // namespace vel

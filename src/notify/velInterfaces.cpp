#include "vel/velInterfaces.h"

namespace vel {

namespace {

struct TKnownInterface {
  const TGUID* IID;
  const char* Name;
};

const TKnownInterface KnownInterfaces[] = {
    {&IIDOf<IInterface>, "IInterface"},
    {&IIDOf<IDispatch>, "IDispatch"},
    {&IIDOf<IStream>, "IStream"},
    {&IIDOf<ICustomNotifier>, "ICustomNotifier"},
    {&IIDOf<INotifier>, "INotifier"},
    {&IIDOf<IPackageNotifier>, "IPackageNotifier"},
    {&IIDOf<IMessageNotifier>, "IMessageNotifier"},
    {&IIDOf<IThreadNotifier>, "IThreadNotifier"},
    {&IIDOf<ILogNotifier>, "ILogNotifier"},
    {&IIDOf<ISubscribe>, "ISubscribe"},
    {&IIDOf<ICustomNotify>, "ICustomNotify"},
    {&IIDOf<INotify>, "INotify"},
    {&IIDOf<IExNotify>, "IExNotify"},
    {&IIDOf<IResolveNotify>, "IResolveNotify"},
    {&IIDOf<INotifyThread>, "INotifyThread"},
    {&IIDOf<ISubscribeThread>, "ISubscribeThread"},
    {&IIDOf<IHandle>, "IHandle"},
    {&IIDOf<IAllocHandle>, "IAllocHandle"},
    {&IIDOf<IWindowsProcedure>, "IWindowsProcedure"},
    {&IIDOf<IApplicationService>, "IApplicationService"},
    {&IIDOf<IThread>, "IThread"},
    {&IIDOf<IThreadDataRequests>, "IThreadDataRequests"},
    {&IID_IThreadManager, "IThreadManager"},
    {&IID_IPackageManager, "IPackageManager"},
    {&IID_IThreadSync, "IThreadSync"},
};

}  // namespace

std::string InterfaceName(const TGUID& IID) {
  for (const TKnownInterface& K : KnownInterfaces)
    if (*K.IID == IID) return K.Name;
  return GUIDToString(IID);
}

}  // namespace vel

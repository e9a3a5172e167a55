// Publish/subscribe notification: notifiers subscribing and leaving, plain
// and resolved broadcasts, their order, the re-entrancy contract, and the
// notifiers' switched-off reference counting.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "thread_test_util.h"
#include "vel/rtl/TypInfo.h"
#include "vel/velIntfClasses.h"

using namespace vel;
using veltest::ErrorOf;

namespace notifytest {

// Collects "<name>:<operation>" for every notification.
class TLog : public TObject {
 public:
  std::vector<std::string> Lines;
  std::vector<IInterface*> Unks;
  std::function<void(TObject*)> During;  // runs inside a notification

  void Note(TObject* Sender, IInterface* Unk, int32_t Operation) {
    Lines.push_back(Names.at(Sender) + ":" + std::to_string(Operation));
    Unks.push_back(Unk);
    if (During) During(Sender);
  }
  void Load(TObject* Sender, const std::string& Name, int32_t Index) {
    Lines.push_back(Names.at(Sender) + ":load " + Name + " " + std::to_string(Index));
  }
  void Unload(TObject* Sender, const std::string& Name, int32_t Index) {
    Lines.push_back(Names.at(Sender) + ":unload " + Name + " " + std::to_string(Index));
  }
  std::map<TObject*, std::string> Names;
};

TNotifier* MakeNotifier(TLog& Log, ISubscribe* Source, const std::string& Name) {
  auto* N = new TNotifier(Source);
  N->OnNotification = TNotifierEvent::Bind<&TLog::Note>(&Log);
  Log.Names[N] = Name;
  return N;
}

TPackageNotifier* MakePackageNotifier(TLog& Log, ISubscribe* Source, const std::string& Name) {
  auto* N = new TPackageNotifier(Source);
  N->OnPackageLoad = TNotifyPackageEvent::Bind<&TLog::Load>(&Log);
  N->OnPackageUnload = TNotifyPackageEvent::Bind<&TLog::Unload>(&Log);
  Log.Names[N] = Name;
  return N;
}

// Counts how often a source attaches or detaches it.
class TCountingNotifier : public TNotifier {
  VEL_CLASS(TCountingNotifier, TNotifier)
 public:
  using TNotifier::TNotifier;
  int SetCalls = 0;
  void SetSubscribe(ISubscribe* Value) override {
    ++SetCalls;
    TNotifier::SetSubscribe(Value);
  }
};

// A resolver that calls IPackageNotifier and INotifier subscribers.
class TResolver : public TInterfacedObject, public IResolveNotify {
  VEL_CLASS(TResolver, TInterfacedObject)
  VEL_INTERFACES(IResolveNotify)
 public:
  std::vector<TGUID> Seen;
  void DoNotify(ICustomNotifier* Notifier, const TGUID& IID, IInterface* Unk,
                int32_t Operation) override {
    Seen.push_back(IID);
    if (IID == IIDOf<IPackageNotifier>)
      static_cast<IPackageNotifier*>(Notifier)->PackageNotification(
          "Pkg", 3, static_cast<TPackageOperation>(Operation));
    else if (IID == IIDOf<INotifier>)
      static_cast<INotifier*>(Notifier)->Notification(Unk, Operation);
  }
};

}  // namespace notifytest

using namespace notifytest;
VEL_IMPLEMENT(TCountingNotifier)
VEL_IMPLEMENT(TResolver)

TEST(Notify, NotifierSubscribesOnCreationAndLeavesWhenFreed) {
  TLog Log;
  auto* Source = new TSubscribeNotify;
  IPtr<INotify> Src(Source);
  // Without subscribers there is no list to broadcast to or remove from.
  Src->Notify(nullptr, 0);
  Source->RemoveNotifier(nullptr);
  EXPECT_FALSE(Source->ListAllocated());
  TNotifier* A = MakeNotifier(Log, Source, "A");
  TNotifier* B = MakeNotifier(Log, Source, "B");
  EXPECT_TRUE(Source->ListAllocated());
  EXPECT_EQ(Source->NotifierCount(), 2);
  EXPECT_EQ(A->GetSubscribe().get(), static_cast<ISubscribe*>(Source));
  EXPECT_EQ(Source->RefCount(), 1);  // notifiers hold their source uncounted

  delete A;
  EXPECT_EQ(Source->NotifierCount(), 1);
  Src->Notify(nullptr, 4);
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"B:4"}));

  // A notifier without a source registers nowhere and frees cleanly.
  auto* Lone = new TNotifier(nullptr);
  EXPECT_EQ(Lone->GetSubscribe().get(), nullptr);
  delete Lone;
  delete B;
  EXPECT_EQ(Source->NotifierCount(), 0);
}

TEST(Notify, BroadcastFollowsSubscriptionOrderAndEnabled) {
  TLog Log;
  auto* Source = new TSubscribeNotify;
  IPtr<INotify> Src(Source);
  std::vector<TNotifier*> Ns;
  for (const char* Name : {"C", "A", "B"}) Ns.push_back(MakeNotifier(Log, Source, Name));
  IPtr<IInterface> Payload(static_cast<IInterface*>(new TInterfacedObject));
  Src->Notify(Payload, 1);
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"C:1", "A:1", "B:1"}));
  EXPECT_EQ(Log.Unks[2], Payload.get());

  Log.Lines.clear();
  Src->SetEnabled(false);
  EXPECT_FALSE(Src->GetEnabled());
  Src->Notify(nullptr, 2);
  EXPECT_TRUE(Log.Lines.empty());
  // Subscribing still works while disabled.
  TNotifier* D = MakeNotifier(Log, Source, "D");
  Src->SetEnabled(true);
  Src->Notify(nullptr, 3);
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"C:3", "A:3", "B:3", "D:3"}));
  for (TNotifier* N : Ns) delete N;
  delete D;
}

TEST(Notify, DuplicateAddsAndUnknownRemovesChangeNothingAndAFreedSourceDetaches) {
  IPtr<ISubscribe> Src(new TSubscribeNotify);
  // (Attached while its constructor runs, before the override exists.)
  auto* N = new TCountingNotifier(Src.get());
  EXPECT_EQ(N->GetSubscribe().get(), Src.get());
  Src->AddNotifier(N->AsCustomNotifier());
  EXPECT_EQ(N->SetCalls, 0);  // already listed: not attached again
  EXPECT_EQ(static_cast<TSubscribeNotify*>(Src.get())->NotifierCount(), 1);

  auto* Outsider = new TCountingNotifier(nullptr);
  Src->RemoveNotifier(Outsider->AsCustomNotifier());
  EXPECT_EQ(Outsider->SetCalls, 0);

  Src->RemoveNotifier(N->AsCustomNotifier());
  EXPECT_EQ(N->SetCalls, 1);
  EXPECT_EQ(N->GetSubscribe().get(), nullptr);
  Src->RemoveNotifier(N->AsCustomNotifier());
  EXPECT_EQ(N->SetCalls, 1);
  Src->AddNotifier(N->AsCustomNotifier());
  EXPECT_EQ(N->SetCalls, 2);
  EXPECT_EQ(N->GetSubscribe().get(), Src.get());

  // The source freed first (its last reference gone) detaches its
  // notifiers, last-added first; freeing them then touches no freed source.
  auto* Second = new TCountingNotifier(Src.get());
  Src = nullptr;
  EXPECT_EQ(N->GetSubscribe().get(), nullptr);
  EXPECT_EQ(Second->GetSubscribe().get(), nullptr);
  EXPECT_EQ(N->SetCalls, 3);
  delete N;
  delete Second;
  delete Outsider;
}

TEST(Notify, OneObjectIsOneSubscriberWhicheverInterfaceAddsIt) {
  IPtr<ISubscribe> Src(new TSubscribeNotify);
  auto Count = [&] { return static_cast<TSubscribeNotify*>(Src.get())->NotifierCount(); };
  TLog Log;
  // Subscribed by its constructor (as ICustomNotifier), then added again
  // through its INotifier: still one entry, one notification.
  TNotifier* A = MakeNotifier(Log, Src.get(), "A");
  ICustomNotifier* ViaINotifier = static_cast<INotifier*>(A);
  ASSERT_NE(static_cast<void*>(ViaINotifier), static_cast<void*>(A->AsCustomNotifier()));
  Src->AddNotifier(ViaINotifier);
  EXPECT_EQ(Count(), 1);
  Src.As<INotify>()->Notify(nullptr, 7);
  EXPECT_EQ(Log.Lines, std::vector<std::string>{"A:7"});
  // Added only through INotifier, it leaves from its destructor (which
  // passes its ICustomNotifier), and the next broadcast reaches nobody.
  TNotifier* B = MakeNotifier(Log, nullptr, "B");
  Src->AddNotifier(static_cast<INotifier*>(B));
  EXPECT_EQ(Count(), 2);
  delete B;
  EXPECT_EQ(Count(), 1);
  Src->RemoveNotifier(ViaINotifier);  // the entry added as ICustomNotifier
  EXPECT_EQ(Count(), 0);
  Log.Lines.clear();
  Src.As<INotify>()->Notify(nullptr, 8);
  EXPECT_TRUE(Log.Lines.empty());
  delete A;
}

TEST(Notify, RemovalDuringABroadcastSkipsAnEntryAndFailsAtTheEnd) {
  TLog Log;
  auto* Source = new TSubscribeNotify;
  IPtr<INotify> Src(Source);
  TNotifier* A = MakeNotifier(Log, Source, "A");
  TNotifier* B = MakeNotifier(Log, Source, "B");
  TNotifier* C = MakeNotifier(Log, Source, "C");
  Log.During = [&](TObject* Sender) {
    if (Sender == A) Source->RemoveNotifier(A->AsCustomNotifier());
  };
  EXPECT_EQ(ErrorOf([&] { Src->Notify(nullptr, 9); }), "EListError: List index out of bounds (2)");
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"A:9", "C:9"}));  // B skipped

  // Adding during a broadcast does not reach the newcomer in that round.
  Log.Lines.clear();
  TNotifier* Late = nullptr;
  Log.During = [&](TObject* Sender) {
    if (Sender == B && !Late) Late = MakeNotifier(Log, Source, "Late");
  };
  Src->Notify(nullptr, 1);
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"B:1", "C:1"}));
  Log.Lines.clear();
  Log.During = nullptr;
  Src->Notify(nullptr, 2);
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"B:2", "C:2", "Late:2"}));

  // An exception from a subscriber ends the broadcast.
  Log.Lines.clear();
  Log.During = [&](TObject* Sender) {
    if (Sender == B) throw EKnownError("stop");
  };
  EXPECT_EQ(ErrorOf([&] { Src->Notify(nullptr, 3); }), "EKnownError: stop");
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"B:3"}));
  Log.During = nullptr;
  for (TNotifier* N : {A, B, C, Late}) delete N;
}

TEST(Notify, ResolvedBroadcastReachesSupportingSubscribersInOrder) {
  TLog Log;
  IPtr<TResolver> Resolver(new TResolver);
  auto* Source = new TExSubscribeNotify(nullptr);
  IPtr<IExNotify> Src(Source);
  TPackageNotifier* P1 = MakePackageNotifier(Log, Source, "P1");
  TNotifier* N = MakeNotifier(Log, Source, "N");
  TPackageNotifier* P2 = MakePackageNotifier(Log, Source, "P2");

  Src->Notify(IIDOf<IPackageNotifier>, nullptr, poPackageLoad);  // no resolver yet
  EXPECT_TRUE(Log.Lines.empty());

  Source->SetResolveNotify(Resolver);
  EXPECT_EQ(Resolver->RefCount(), 1);  // held uncounted
  EXPECT_EQ(Source->GetResolveNotify().get(), static_cast<IResolveNotify*>(Resolver.get()));
  Src->Notify(IIDOf<IPackageNotifier>, nullptr, poPackageLoad);
  Src->Notify(IIDOf<IPackageNotifier>, nullptr, poPackageUnload);
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"P1:load Pkg 3", "P2:load Pkg 3",
                                                 "P1:unload Pkg 3", "P2:unload Pkg 3"}));
  Log.Lines.clear();
  Src->Notify(IIDOf<INotifier>, nullptr, 5);
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"N:5"}));
  Log.Lines.clear();
  Src->Notify(IIDOf<IThreadNotifier>, nullptr, 0);  // nobody supports it
  EXPECT_TRUE(Log.Lines.empty());
  EXPECT_EQ(Resolver->Seen.size(), 5u);

  Source->SetEnabled(false);
  Src->Notify(IIDOf<INotifier>, nullptr, 5);
  EXPECT_TRUE(Log.Lines.empty());
  Src = nullptr;  // freed first: the notifiers are detached, the resolver kept
  EXPECT_EQ(P1->GetSubscribe().get(), nullptr);
  EXPECT_EQ(Resolver->RefCount(), 1);
  for (TCustomNotifier* X : std::initializer_list<TCustomNotifier*>{P1, N, P2}) delete X;
}

TEST(Notify, PackageNotifiersRejectPlainBroadcastsAndOtherOperations) {
  TLog Log;
  auto* Source = new TSubscribeNotify;
  IPtr<INotify> Src(Source);
  TPackageNotifier* P = MakePackageNotifier(Log, Source, "P");
  // A plain broadcast needs INotifier subscribers.
  EXPECT_EQ(ErrorOf([&] { Src->Notify(nullptr, 0); }), "EIntfCastError: Interface not supported");
  P->PackageNotification("Reports", 7, poPackageUnload);
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"P:unload Reports 7"}));
  EXPECT_EQ(
      ErrorOf([&] { P->PackageNotification("Reports", 7, static_cast<TPackageOperation>(2)); }),
      "EPackageNotifierError: Package Notification, invalid operation (Reports)");
  // Unassigned events are simply not called.
  P->OnPackageLoad = nullptr;
  P->PackageNotification("Reports", 8, poPackageLoad);
  EXPECT_EQ(Log.Lines.size(), 1u);
  delete P;
}

TEST(Notify, NotifiersAreNotReferenceCounted) {
  TLog Log;
  TNotifier* N = MakeNotifier(Log, nullptr, "N");
  for (int I = 0; I < 1000; ++I) {
    EXPECT_EQ(N->_AddRef(), -1);
    EXPECT_EQ(N->_Release(), -1);
  }
  {
    IPtr<INotifier> Counted(N);
    IPtr<ICustomNotifier> Base = Counted.As<ICustomNotifier>();
    EXPECT_EQ(Base.get(), N->AsCustomNotifier());
    IPtr<IInterface> Unk = Counted.As<IInterface>();
    EXPECT_NE(Unk.get(), nullptr);
  }
  N->Notification(nullptr, 1);  // still alive after the counted pointers
  EXPECT_EQ(Log.Lines, std::vector<std::string>({"N:1"}));
  EXPECT_EQ(std::string(N->ClassName()), "TNotifier");
  delete N;
}

TEST(Notify, InterfaceNamesForDiagnostics) {
  EXPECT_EQ(InterfaceName(IIDOf<IExNotify>), "IExNotify");
  EXPECT_EQ(InterfaceName(IID_IThreadManager), "IThreadManager");
  EXPECT_EQ(InterfaceName(GUID_NULL), "{00000000-0000-0000-0000-000000000000}");
  EXPECT_EQ(GUIDToString(IIDOf<IThreadNotifier>), "{11F11B61-A22D-11D5-9000-0000F6B2E357}");
}

// The COM object template's weak references, and the list that releases the module's lifetime objects.
#include <gtest/gtest.h>

#include "libinfra/com/LifetimeList.h"
#include "libinfra/com/Object.h"
#include "libinfra/com/UnownedObject.h"

namespace {

class Widget final : public com::Object<Widget, IServiceProvider, IConnectionPointContainer> {
 public:
  explicit Widget(bool& destroyed) : destroyed_(destroyed) {}
  ~Widget() { destroyed_ = true; }
  HRESULT STDMETHODCALLTYPE QueryService(REFGUID, REFIID, void**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID, IConnectionPoint**) override { return E_FAIL; }

 private:
  bool& destroyed_;
};

std::int32_t LiveObjects() { return com::moduleObjectCount.load(); }

TEST(ComObject, WeakReferenceResolvesWhileTheObjectLivesAndFailsSoftlyAfterwards) {
  const std::int32_t baseline = LiveObjects();
  bool destroyed = false;
  com::Ptr<Widget> widget = com::Make<Widget>(destroyed);
  com::Ptr<com::IWeakReferenceSource> source;
  ASSERT_EQ(widget->QueryInterface(com::kIidIWeakReferenceSource, reinterpret_cast<void**>(source.Put())), S_OK);
  EXPECT_EQ(LiveObjects(), baseline + 2) << "the control block counts as a live object";
  com::Ptr<com::IWeakReference> weak;
  ASSERT_EQ(source->GetWeakReference(weak.Put()), S_OK);
  for (const GUID& iid : {com::kIidIUnknown, com::kIidIWeakReference}) {
    com::Ptr<IUnknown> answer;
    EXPECT_TRUE(weak->QueryInterface(iid, reinterpret_cast<void**>(answer.Put())) == S_OK &&
                answer.Get() == weak.Get());
  }
  void* refused = &destroyed;
  EXPECT_TRUE(weak->QueryInterface(com::kIidIWeakReferenceSource, &refused) == E_NOINTERFACE && refused == nullptr);
  EXPECT_EQ(std::vector<HRESULT>({weak->QueryInterface(com::kIidIUnknown, nullptr),
                                  weak->Resolve(com::kIidIUnknown, nullptr), source->GetWeakReference(nullptr)}),
            std::vector<HRESULT>(3, E_POINTER));
  com::Ptr<IServiceProvider> throughSource;  // the source answers for the object
  ASSERT_EQ(source->QueryInterface(com::kIidIServiceProvider, reinterpret_cast<void**>(throughSource.Put())), S_OK);
  EXPECT_EQ(throughSource.Get(), static_cast<IServiceProvider*>(widget.Get()));
  throughSource = {};
  source = {};
  EXPECT_EQ(std::vector<ULONG>({weak->AddRef(), weak->Release()}), std::vector<ULONG>({3, 2}))
      << "held by this reference and by the living object";
  EXPECT_EQ(widget->AddRef(), 2u) << "the count moved into the control block unchanged";
  widget->Release();
  com::Ptr<IUnknown> resolved;
  ASSERT_EQ(weak->Resolve(com::kIidIServiceProvider, resolved.Put()), S_OK);
  EXPECT_NE(resolved.Get(), nullptr);
  EXPECT_EQ(weak->Resolve(com::kIidIClassFactory, resolved.Put()), E_NOINTERFACE);
  resolved = {};
  widget = {};
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(weak->Resolve(com::kIidIServiceProvider, resolved.Put()), S_OK);
  EXPECT_EQ(resolved.Get(), nullptr);
  EXPECT_EQ(LiveObjects(), baseline + 1);
  weak = {};
  EXPECT_EQ(LiveObjects(), baseline);
}

TEST(LifetimeList, ReleasesEveryPresentObjectOnceAndForgetsTheEntries) {
  struct Releasable final : com::UnownedObject<IServiceProvider> {
    HRESULT STDMETHODCALLTYPE QueryService(REFGUID, REFIID, void**) override { return E_FAIL; }
  } first, second;
  void* answer = nullptr;
  EXPECT_EQ(first.QueryInterface(com::kIidIClassFactory, &answer), E_NOINTERFACE);
  EXPECT_EQ(first.QueryInterface(com::kIidIUnknown, nullptr), E_POINTER);
  ASSERT_EQ(first.QueryInterface(com::kIidIUnknown, &answer), S_OK);  // the reference the list holds
  EXPECT_EQ(answer, static_cast<IServiceProvider*>(&first));
  second.AddRef();
  com::LifetimeList list;
  com::LifetimeEntry entries[3] = {{{&first, 0}, nullptr}, {{nullptr, 0}, nullptr}, {{&second, 7}, nullptr}};
  for (auto& entry : entries) {
    list.Add(entry);
  }
  list.ReleaseAll();
  list.ReleaseAll();
  EXPECT_TRUE(first.References() == 0 && second.References() == 0);
  EXPECT_TRUE(entries[2].slot.object == nullptr && entries[2].slot.generation == 8);
}

}  // namespace

// The list that releases the module's lifetime objects, and the unowned objects it holds.
#include <gtest/gtest.h>

#include "libinfra/com/LifetimeList.h"
#include "libinfra/com/UnownedObject.h"

namespace {

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

// The hook catalogue and the registry it fills: module keys, the six rows and what each asks
// for, their shared state, and which ones the configuration can switch off.
#include <gtest/gtest.h>

#include <set>

#include "KestrelLib/Globals.h"
#include "KestrelLib/TrapList.auto.h"

namespace {

TEST(ModuleKey, IsTheNameWithoutItsLastExtensionInLowerCase) {
  const std::pair<const wchar_t*, const wchar_t*> rows[] = {{L"KERNEL32.DLL", L"kernel32"},
                                                            {L"ADVAPI32.DLL", L"advapi32"},
                                                            {L"Zz.dll", L"zz"},
                                                            {L"ntdll.dll.mui", L"ntdll.dll"},
                                                            {L".dll", L""},
                                                            {L"", L""},
                                                            {L"C:\\W\\NTDLL.DLL", L"c:\\w\\ntdll"},
                                                            {L"@[`{.DLL", L"@[`{"},
                                                            {L"\u00C4BC.DLL", L"\u00C4bc"}};
  for (const auto& [name, key] : rows) {
    EXPECT_EQ(tessel::moduleKeyFromName(name), key);
  }
}

struct Row {
  const std::vector<tessel::TrapEntry>& list;
  const char* function;
  std::uint32_t hookId;
  bool heap;
};

TEST(Catalogue, SixRowsForAnyVersionEachWithItsOwnSlotAndHandler) {
  const Row rows[] = {{tessel::ntdllTraps, "RtlCompressBuffer", 0, false},
                      {tessel::kernel32Traps, "CreateToolhelp32Snapshot", 1, false},
                      {tessel::ntdllTraps, "RtlAllocateHeap", 2, true},
                      {tessel::ntdllTraps, "RtlReAllocateHeap", 3, true},
                      {tessel::ntdllTraps, "RtlCompactHeap", 4, true},
                      {tessel::ntdllTraps, "RtlFreeHeap", 5, true}};
  EXPECT_EQ(std::vector<std::size_t>({tessel::ntdllTraps.size(), tessel::ntdllTraps.capacity(),
                                      tessel::kernel32Traps.size(), tessel::kernel32Traps.capacity()}),
            std::vector<std::size_t>({5, 5, 1, 1}));
  tessel::ModuleTrapMap& registry = tessel::traps();
  EXPECT_EQ(registry.size(), 2u);
  std::set<void*> slotsAndHandlers;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.function);
    const auto& registered = registry.at(&row.list == &tessel::ntdllTraps ? L"ntdll" : L"kernel32");
    const std::size_t index = row.hookId < 2 ? 0 : row.hookId - 1;
    const tessel::TrapEntry& entry = row.list.at(index);
    EXPECT_EQ(entry.functionName, row.function);
    EXPECT_EQ(registered.at(index).descriptor, entry.descriptor) << "the registry's copy shares the trap";
    ASSERT_EQ(entry.includeVersions.size(), 1u);
    EXPECT_TRUE(entry.includeVersions[0].low == 0 && entry.includeVersions[0].high == 0xFFFFFFFF);
    EXPECT_TRUE(entry.excludeVersions.empty());
    const tessel::TrapDescriptor& trap = *entry.descriptor;
    EXPECT_EQ(trap.hookId, row.hookId);
    EXPECT_EQ(trap.state, tessel::TrapState::Pending);
    EXPECT_EQ(*trap.callThroughSlot, nullptr);
    EXPECT_TRUE(trap.reserved == 0 && !trap.evaluatePredicateAtLoad && trap.resolver == nullptr &&
                trap.onRegistered == nullptr);
    for (const bool enabled : {false, true}) {
      tessel::Globals::heapAllocatorHookEnabled = enabled;
      EXPECT_EQ(trap.predicate(), row.heap ? enabled : true);
    }
    slotsAndHandlers.insert(trap.callThroughSlot);
    slotsAndHandlers.insert(trap.handler);
  }
  EXPECT_EQ(slotsAndHandlers.size(), 12u);
  const tessel::VersionRange range{10, 20};
  EXPECT_EQ(std::vector<bool>({range.Contains(9), range.Contains(10), range.Contains(19), range.Contains(20)}),
            std::vector<bool>({false, true, true, false}));
}

}  // namespace

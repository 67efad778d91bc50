// The catalogue's six rows: what each asks for, and which the configuration can switch off.
#include <gtest/gtest.h>

#include <set>

#include "KestrelLib/EventPayload.h"
#include "KestrelLib/Globals.h"
#include "KestrelLib/TrapList.auto.h"

namespace {

using tessel::TrapEntry;

struct Row {
  const char* module;
  std::size_t index;
  const char* function;
  std::uint32_t hookId;
  bool heap;
};

const Row kRows[] = {{"ntdll", 0, "RtlCompressBuffer", 0, false}, {"kernel32", 0, "CreateToolhelp32Snapshot", 1, false},
                     {"ntdll", 1, "RtlAllocateHeap", 2, true},    {"ntdll", 2, "RtlReAllocateHeap", 3, true},
                     {"ntdll", 3, "RtlCompactHeap", 4, true},     {"ntdll", 4, "RtlFreeHeap", 5, true}};

const TrapEntry& EntryOf(const Row& row) {
  const auto& list = std::string(row.module) == "ntdll" ? tessel::ntdllTraps : tessel::kernel32Traps;
  return list.at(row.index);
}

TEST(TrapList, ListsHaveTheirExactSizes) {
  EXPECT_EQ(tessel::ntdllTraps.size(), 5u);
  EXPECT_EQ(tessel::ntdllTraps.capacity(), 5u);
  EXPECT_EQ(tessel::kernel32Traps.size(), 1u);
  EXPECT_EQ(tessel::kernel32Traps.capacity(), 1u);
}

TEST(TrapList, EveryRowAsksForAnyVersionWithItsOwnSlotAndHandler) {
  std::set<void**> slots;
  std::set<void*> handlers;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.function);
    const TrapEntry& entry = EntryOf(row);
    EXPECT_EQ(entry.functionName, row.function);
    ASSERT_EQ(entry.includeVersions.size(), 1u);
    EXPECT_EQ(entry.includeVersions[0].low, 0u);
    EXPECT_EQ(entry.includeVersions[0].high, 0xFFFFFFFFu);
    EXPECT_TRUE(entry.excludeVersions.empty());
    const tessel::TrapDescriptor& trap = *entry.descriptor;
    EXPECT_EQ(trap.hookId, row.hookId);
    EXPECT_EQ(trap.reserved, 0u);
    EXPECT_FALSE(trap.evaluatePredicateAtLoad);
    EXPECT_EQ(trap.resolver, nullptr);
    EXPECT_EQ(trap.onRegistered, nullptr);
    ASSERT_NE(trap.predicate, nullptr);
    ASSERT_NE(trap.callThroughSlot, nullptr);
    EXPECT_NE(trap.handler, nullptr);
    slots.insert(trap.callThroughSlot);
    handlers.insert(trap.handler);
  }
  EXPECT_EQ(slots.size(), 6u);
  EXPECT_EQ(handlers.size(), 6u);
}

TEST(TrapList, StartsPendingWithEmptySlots) {
  for (const Row& row : kRows) {
    EXPECT_EQ(EntryOf(row).descriptor->state, tessel::TrapState::Pending) << row.function;
    EXPECT_EQ(*EntryOf(row).descriptor->callThroughSlot, nullptr) << row.function;
  }
}

TEST(TrapList, OnlyTheHeapTrapsFollowTheConfiguration) {
  for (const bool enabled : {false, true}) {
    tessel::Globals::heapAllocatorHookEnabled = enabled;
    for (const Row& row : kRows) {
      EXPECT_EQ(EntryOf(row).descriptor->predicate(), row.heap ? enabled : true) << row.function;
    }
  }
  tessel::Globals::heapAllocatorHookEnabled = false;
}

TEST(TrapList, EventOperations) {
  EXPECT_EQ(tessel::compressBufferOperation.name, "RtlCompressBuffer");
  EXPECT_EQ(tessel::compressBufferOperation.version, 1);
  EXPECT_EQ(tessel::processSnapshotOperation.name, "CreateToolhelp32Snapshot");
  EXPECT_EQ(tessel::processSnapshotOperation.version, 1);
}

}  // namespace

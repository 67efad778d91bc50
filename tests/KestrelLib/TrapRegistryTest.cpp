// The trap registry: module keys, the two lists, and state shared through every copy.
#include <gtest/gtest.h>

#include "KestrelLib/TrapList.auto.h"
#include "KestrelLib/TrapRegistry.h"

namespace {

using tessel::TrapState;

struct KeyCase {
  const wchar_t* name;
  const wchar_t* key;
};

class ModuleKey : public ::testing::TestWithParam<KeyCase> {};

TEST_P(ModuleKey, FromName) { EXPECT_EQ(tessel::moduleKeyFromName(GetParam().name), GetParam().key); }

INSTANTIATE_TEST_SUITE_P(Names, ModuleKey,
                         ::testing::Values(KeyCase{L"KERNEL32.DLL", L"kernel32"}, KeyCase{L"kernel32", L"kernel32"},
                                           KeyCase{L"Ntdll", L"ntdll"}, KeyCase{L"ntdll.dll.mui", L"ntdll.dll"},
                                           KeyCase{L"a.b.dll", L"a.b"}, KeyCase{L".dll", L""}, KeyCase{L"", L""},
                                           KeyCase{L"C:\\Windows\\NTDLL.DLL", L"c:\\windows\\ntdll"},
                                           KeyCase{L"\u00C4BC.DLL", L"\u00C4bc"}));

std::vector<std::string> Names(const std::vector<tessel::TrapEntry>& list) {
  std::vector<std::string> names;
  for (const auto& entry : list) {
    names.push_back(entry.functionName);
  }
  return names;
}

TEST(TrapRegistry, HoldsTheTwoModulesWithTheirListsInOrder) {
  tessel::ModuleTrapMap& map = tessel::traps();
  ASSERT_EQ(map.size(), 2u);
  EXPECT_EQ(Names(map.at(L"ntdll")), (std::vector<std::string>{"RtlCompressBuffer", "RtlAllocateHeap",
                                                               "RtlReAllocateHeap", "RtlCompactHeap", "RtlFreeHeap"}));
  EXPECT_EQ(Names(map.at(L"kernel32")), (std::vector<std::string>{"CreateToolhelp32Snapshot"}));
  EXPECT_EQ(&tessel::traps(), &map) << "built once";
}

TEST(TrapRegistry, FindsModulesOnlyByTheirExactKey) {
  tessel::ModuleTrapMap& map = tessel::traps();
  EXPECT_NE(map.find(tessel::moduleKeyFromName(L"KERNEL32.DLL")), map.end());
  EXPECT_NE(map.find(tessel::moduleKeyFromName(L"kernel32")), map.end());
  EXPECT_EQ(map.find(tessel::moduleKeyFromName(L"kernelbase.dll")), map.end());
  EXPECT_EQ(map.find(tessel::moduleKeyFromName(L"C:\\Windows\\System32\\ntdll.dll")), map.end());
}

TEST(TrapRegistry, EveryCopyOfAListSharesTheTrapsState) {
  std::vector<tessel::TrapEntry> copy = tessel::traps().at(L"ntdll");
  const std::vector<tessel::TrapEntry>& registered = tessel::traps().at(L"ntdll");
  ASSERT_EQ(copy.size(), tessel::ntdllTraps.size());
  for (std::size_t i = 0; i < copy.size(); ++i) {
    EXPECT_EQ(copy[i].descriptor, registered[i].descriptor);
    EXPECT_EQ(copy[i].descriptor, tessel::ntdllTraps[i].descriptor);
  }
  copy[1].descriptor->state = TrapState::Applied;
  EXPECT_EQ(registered[1].descriptor->state, TrapState::Applied);
  copy[1].descriptor->state = TrapState::Pending;
}

TEST(VersionRange, IsHalfOpen) {
  const tessel::VersionRange range{10, 20};
  EXPECT_FALSE(range.Contains(9));
  EXPECT_TRUE(range.Contains(10));
  EXPECT_TRUE(range.Contains(19));
  EXPECT_FALSE(range.Contains(20));
  EXPECT_FALSE((tessel::VersionRange{5, 5}.Contains(5)));
}

}  // namespace

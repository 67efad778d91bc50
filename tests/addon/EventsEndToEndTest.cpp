// Events end to end, as a host sees them: Initialize with the heap hooks on, the load
// notifications of ntdll and kernel32, then calls through the handlers the hook service was
// given (its slots hold the host's own stand-ins for the real functions). Events arrive with
// the right bytes; none after Stop; again after a second Initialize.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/EventBytes.h"
#include "tests/support/HookedAddon.h"

namespace {

using Compress = std::int32_t(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                              std::uint32_t*, void*);
using Snapshot = void*(std::uint32_t, std::uint32_t);
using Allocate = void*(void*, std::uint32_t, std::size_t);
using Free = std::uint32_t(void*, std::uint32_t, void*);

std::int32_t HostCompress(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                          std::uint32_t* finalSize, void*) {
  *finalSize = 10;
  SetLastError(0x7A);
  return 0;
}
void* HostSnapshot(std::uint32_t, std::uint32_t) {
  SetLastError(0x7B);
  return reinterpret_cast<void*>(0x1234);
}
void* HostAllocate(void*, std::uint32_t, std::size_t size) { return std::malloc(size); }
void* HostReAllocate(void*, std::uint32_t, void* base, std::size_t size) { return std::realloc(base, size); }
std::size_t HostCompact(void*, std::uint32_t) { return 0; }
std::uint32_t HostFree(void*, std::uint32_t, void* base) {
  std::free(base);
  return 1;
}

class EventsEndToEnd : public test::HookedAddon {
 protected:
  void SetUp() override {
    registry_.config.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
    ASSERT_NO_FATAL_FAILURE(Start({{L"RtlCompressBuffer", reinterpret_cast<void*>(&HostCompress)},
                                   {L"CreateToolhelp32Snapshot", reinterpret_cast<void*>(&HostSnapshot)},
                                   {L"RtlAllocateHeap", reinterpret_cast<void*>(&HostAllocate)},
                                   {L"RtlReAllocateHeap", reinterpret_cast<void*>(&HostReAllocate)},
                                   {L"RtlCompactHeap", reinterpret_cast<void*>(&HostCompact)},
                                   {L"RtlFreeHeap", reinterpret_cast<void*>(&HostFree)}}));
    ASSERT_EQ(handlers_.size(), 6u);
  }

  // One call of each hooked function, each checked for the host function's result and error.
  void CallEachOnce() {
    std::uint32_t finalSize = 0;
    SetLastError(1);
    EXPECT_EQ(Handler<Compress>(L"RtlCompressBuffer")(2, nullptr, 100, nullptr, 120, 4096, &finalSize, nullptr), 0);
    EXPECT_EQ(GetLastError(), 0x7Au);
    EXPECT_EQ(finalSize, 10u);
    EXPECT_EQ(Handler<Snapshot>(L"CreateToolhelp32Snapshot")(6, 4321), reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(GetLastError(), 0x7Bu);
    void* block = Handler<Allocate>(L"RtlAllocateHeap")(nullptr, 0, 32);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(Handler<Free>(L"RtlFreeHeap")(nullptr, 0, block), 1u);
  }

  std::vector<std::vector<BYTE>> Events() const { return registry_.eventGenerator.Events(); }
};

TEST_F(EventsEndToEnd, EventsFlowUntilStopAndResumeAfterASecondInitialize) {
  CallEachOnce();
  const auto events = Events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].size(), 39u);
  EXPECT_EQ(std::vector<BYTE>(events[0].begin(), events[0].begin() + 19),
            test::EventBytes().U16(17).Text("RtlCompressBuffer").bytes);
  EXPECT_EQ(std::vector<BYTE>(events[0].end() - 10, events[0].end()),
            test::EventBytes().U16(2).U32(100).U32(120).bytes);
  ASSERT_EQ(events[1].size(), 44u);
  EXPECT_EQ(std::vector<BYTE>(events[1].begin(), events[1].begin() + 28),
            test::EventBytes().U16(24).Text("CreateToolhelp32Snapshot").U16(1).bytes);
  EXPECT_EQ(std::vector<BYTE>(events[0].begin() + 21, events[0].begin() + 29),
            std::vector<BYTE>(events[1].begin() + 28, events[1].begin() + 36))
      << "both carry the same process creation time";
  EXPECT_EQ(std::vector<BYTE>(events[1].end() - 8, events[1].end()), test::EventBytes().U32(6).U32(4321).bytes);

  ASSERT_EQ(addon_->Stop(), S_OK);
  CallEachOnce();
  EXPECT_EQ(Events().size(), 2u) << "handlers only pass through after Stop";

  test::FakeRegistry unused;
  ASSERT_EQ(addon_->Initialize(&unused), S_OK);
  Handler<Snapshot>(L"CreateToolhelp32Snapshot")(6, 4321);
  EXPECT_EQ(Events().size(), 3u);
  EXPECT_TRUE(unused.calls.empty());
}

}  // namespace

// Both virtual tables are binary interfaces: every call here goes through a slot number.
#include <array>
#include <typeinfo>
#include <utility>

#include "client_fixture.h"

namespace ip_spoofing_mgr {
namespace {

using testing::ElementsAre;

template <class Function>
Function Slot(void* object, size_t slot) {
  void* const* table = *static_cast<void* const* const*>(object);
  return reinterpret_cast<Function>(table[slot]);
}

TEST_F(ClientTest, EveryOperationIsInItsSlot) {
  StartConnected();
  Heard();
  void* object = client_.get();
  const limid_t limid{{1, 0}};
  const AllowedIpEntry entry = Entry(1, 7, "10.0.0.1", 9);
  using Port = int (*)(void*, const limid_t*, bool);
  using All = int (*)(void*, const limid_t*, AllowedAllMode);
  using EntryCall = int (*)(void*, const AllowedIpEntry*, const uint8_t*);
  InCallback([&] {
    Slot<Port>(object, 2)(object, &limid, true);
    Slot<All>(object, 3)(object, &limid, kAllowedAllIpv4);
    Slot<EntryCall>(object, 4)(object, &entry, entry.mac);
  });
  InCallback([&] { Slot<EntryCall>(object, 5)(object, &entry, entry.mac); });
  InCallback([&] { Slot<EntryCall>(object, 6)(object, &entry, entry.mac); });
  InCallback([&] { Slot<int (*)(void*)>(object, 7)(object); });
  EXPECT_THAT(Heard(), ElementsAre("1 [enable 1, mode 1 1, put 1/7/10.0.0.1 mac 9]", "2 [remove 1/7/10.0.0.1]",
                                   "3 [put 1/7/10.0.0.1 mac 9]", "list 1"));
  Idle();  // the acknowledgements
  const auto* status = Slot<const ConnectionStatus* (*)(void*)>(object, 10)(object);
  EXPECT_EQ(*reinterpret_cast<const int32_t*>(status), 1);
  Slot<void (*)(void*)>(object, 9)(object);
  EXPECT_EQ(*reinterpret_cast<const int32_t*>(status), 0) << "the record is refreshed";
  EXPECT_THAT(Heard(), ElementsAre("gone"));  // before the next connection, which the manager may see first
  EXPECT_EQ(Slot<int32_t (*)(void*)>(object, 8)(object), 0);
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "list 1"));
  Slot<void (*)(void*)>(client_.release(), 1)(object);  // the deleting destructor
  EXPECT_THAT(Heard(), ElementsAre("gone"));
}

/// A callback object made of nothing but a table that notes which slot was called.
struct SlotRecorder {
  static inline std::vector<size_t> called;
  template <size_t Slot>
  static void Note(void*, const void*) {
    called.push_back(Slot);
  }
  /// With what stands in front of the slots of every table: the offset to the object's top, and its type.
  template <size_t... Slots>
  static std::array<const void*, 2 + sizeof...(Slots)> Table(std::index_sequence<Slots...>) {
    return {nullptr, &typeid(IpSpoofingPreventionMgrClient::CallbackItf),
            reinterpret_cast<const void*>(&Note<Slots>)...};
  }
  std::array<const void*, 18> table = Table(std::make_index_sequence<16>{});
  const void* const* vptr = table.data() + 2;
};

TEST_F(ClientTest, TheCallbacksAreCalledInTheirSlots) {
  SlotRecorder recorder;
  SlotRecorder::called.clear();
  client_ = std::make_unique<IpSpoofingPreventionMgrClient>(
      mw_, reinterpret_cast<IpSpoofingPreventionMgrClient::CallbackItf*>(&recorder.vptr));
  StartConnected();
  EXPECT_THAT(SlotRecorder::called, ElementsAre(2U));
  InCallback([&] { client_->RequestAllowedIpList(); });
  Heard();
  manager_->SendRows(1, 1);
  ASSERT_TRUE(Until([&] { return SlotRecorder::called.size() == 2; }));
  EXPECT_THAT(SlotRecorder::called, ElementsAre(2U, 11U));
}

TEST(VirtualTables, TheDaemonSideCallbacksHaveSixteenSlotsInOrder) {
  App app;
  void* object = &app;
  for (const size_t slot : {3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U, 12U, 13U, 14U, 15U}) {
    Slot<void (*)(void*)>(object, slot)(object);
  }
  EXPECT_EQ(app.other, 12);
  Slot<void (*)(void*)>(object, 2)(object);
  EXPECT_EQ(app.connected, 1);
  const std::list<AllowedIpStatusEntry> list(3);
  Slot<void (*)(void*, const std::list<AllowedIpStatusEntry>&)>(object, 11)(object, list);
  EXPECT_THAT(app.sizes, ElementsAre(3U));
}

}  // namespace
}  // namespace ip_spoofing_mgr

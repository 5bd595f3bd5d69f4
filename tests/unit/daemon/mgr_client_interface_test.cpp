// The manager client's and the callbacks' virtual tables: calls through the slots, by their numbers.
#include <memory>

#include "app/mgr_callbacks.h"
#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

using ip_spoofing_mgr::ConnectionStatus;
using ip_spoofing_mgr::IpSpoofingPreventionMgrClient;
using Callbacks = IpSpoofingPreventionMgrClient::CallbackItf;

/// Calls the function in a slot of the object's virtual table, as a caller compiled elsewhere would.
template <typename Result, typename... Args>
Result CallSlot(void* object, int slot, Args... args) {
  using Function = Result (*)(void*, Args...);
  void* const* const table = *static_cast<void* const**>(object);
  return reinterpret_cast<Function>(table[slot])(object, args...);
}

class ClientSlots : public DaemonTest {
 protected:
  ClientSlots() {
    fakes::TheTrace().Record({Kind::kRequest});
    client_ = std::make_unique<IpSpoofingPreventionMgrClient>(fakes::TheHandle(), nullptr);
    entry_.limid = fakes::TheLimid().Id("eth3");
    entry_.address[0] = 10;
    entry_.vlan = 5;
    Taken();
  }

  AllowedIpEntry entry_{};
};

TEST_F(ClientSlots, StandInThisOrder) {
  void* const client = client_.get();
  limid_t eth3 = entry_.limid;
  const uint8_t* const mac = entry_.mac;
  AllowedIpEntry* const entry = &entry_;
  CallSlot<int>(client, 2, &eth3, true);
  CallSlot<int>(client, 3, &eth3, uint32_t{3});
  CallSlot<int>(client, 4, entry, mac);
  CallSlot<int>(client, 5, entry, mac);
  CallSlot<int>(client, 6, entry, mac);
  CallSlot<int>(client, 7);
  EXPECT_EQ(CallSlot<int32_t>(client, 8), 0);
  CallSlot<void>(client, 9);
  EXPECT_EQ(CallSlot<const ConnectionStatus*>(client, 10), &fakes::TheManager().status);
  EXPECT_EQ(Taken(), (Lines{"SendIpSpoofing eth3 true", "SendAllowedIpAll eth3 3",
                            "SendAddEntry eth3 10.0.0.0 vlan 5 mac 00:00:00:00:00:00",
                            "SendRemoveEntry eth3 10.0.0.0 vlan 5 mac 00:00:00:00:00:00",
                            "SendUpdateEntry eth3 10.0.0.0 vlan 5 mac 00:00:00:00:00:00", "RequestAllowedIpList",
                            "Connect", "Disconnect", "GetConnectionStatus"}));
}

TEST_F(ClientSlots, DeletingDestructorIsTheSecond) {
  CallSlot<void>(client_.release(), 1);
  EXPECT_EQ(Taken(), Lines{"~IpSpoofingPreventionMgrClient"});
}

TEST_F(ClientSlots, StatusStartsWithWhetherItIsConnected) {
  fakes::TheManager().status.connected = 77;
  const void* const status = client_->GetConnectionStatus();
  EXPECT_EQ(*static_cast<const int32_t*>(status), 77);
}

/// Says which of its operations ran.
class Numbered : public Callbacks {
 public:
  explicit Numbered(std::vector<int>* ran) : ran_{ran} {}
  ~Numbered() override { ran_->push_back(-1); }
  void OnMgrConnected() override { ran_->push_back(2); }
  void OnNotification3() override { ran_->push_back(3); }
  void OnNotification4() override { ran_->push_back(4); }
  void OnNotification5() override { ran_->push_back(5); }
  void OnNotification6() override { ran_->push_back(6); }
  void OnNotification7() override { ran_->push_back(7); }
  void OnNotification8() override { ran_->push_back(8); }
  void OnNotification9() override { ran_->push_back(9); }
  void OnNotification10() override { ran_->push_back(10); }
  void OnAllowedIpList(const std::list<AllowedIpStatusEntry>& list) override {
    ran_->push_back(11);
    ran_->push_back(static_cast<int>(list.size()));
  }
  void OnNotification12() override { ran_->push_back(12); }
  void OnNotification13() override { ran_->push_back(13); }
  void OnNotification14() override { ran_->push_back(14); }
  void OnNotification15() override { ran_->push_back(15); }

 private:
  std::vector<int>* ran_;
};

TEST(CallbackSlots, StandInThisOrder) {
  std::vector<int> ran;
  auto* const callbacks = new Numbered(&ran);
  for (int slot = 2; slot <= 15; ++slot) {
    const std::list<AllowedIpStatusEntry> list(21);
    if (slot == 11) {
      CallSlot<void>(callbacks, slot, &list);
    } else {
      CallSlot<void>(callbacks, slot);
    }
  }
  CallSlot<void>(callbacks, 1);
  EXPECT_EQ(ran, (std::vector<int>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 21, 12, 13, 14, 15, -1}));
}

using DaemonCallbacks = DaemonTest;

TEST_F(DaemonCallbacks, IgnoreEveryOtherNotification) {
  auto callbacks = std::make_unique<IpSpoofingMgrClientCbItf>();
  for (const int slot : {3, 4, 5, 6, 7, 8, 9, 10, 12, 13, 14, 15}) CallSlot<void>(callbacks.get(), slot);
  CallSlot<void>(callbacks.release(), 1);
  EXPECT_EQ(Taken(), Lines{});
}

TEST_F(DaemonCallbacks, HaveNoData) { EXPECT_EQ(sizeof(IpSpoofingMgrClientCbItf), sizeof(void*)); }

}  // namespace
}  // namespace ip_spoofing_app

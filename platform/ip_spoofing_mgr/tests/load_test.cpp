// Which batches are full: a load of the whole configuration is told from a change.
#include "client_fixture.h"
#include "common/config_reads.h"

namespace ip_spoofing_mgr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The application's database, as far as the client sees of it.
void ReadConfiguration() { ++common::ProcessConfigReads().reads; }
void FailToRead() {
  ++common::ProcessConfigReads().reads;
  ++common::ProcessConfigReads().failures;
}

class LoadTest : public ClientTest {
 protected:
  /// The application has connected to its database: it asks for the status, and loads when the manager is there.
  void DatabaseConnects(const std::function<void()>& load) {
    InCallback([&] {
      if (client_->GetConnectionStatus() != nullptr && client_->GetConnectionStatus()->connected != 0) load();
    });
  }
  void LoseManager() {
    manager_.reset();
    ASSERT_TRUE(Until([&] { return status_->connected == 0; }));
  }
  void Reconnect() {
    const int before = app_.connected;
    StartManager();
    ASSERT_TRUE(Until([&] { return app_.connected > before; }));
  }
};

TEST_F(LoadTest, TheFirstStatusOfAProcessMarksItsCallbackFull) {
  StartConnected();
  DatabaseConnects([&] {
    ReadConfiguration();
    SendEnable(1);
  });
  InCallback([&] { SendEnable(2); });
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "1 full [enable 1]", "2 [enable 2]"));
}

TEST_F(LoadTest, TheFirstStatusMarksAnEmptyConfigurationToo) {
  StartConnected();
  DatabaseConnects([] {});
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "1 full []"));
}

TEST_F(LoadTest, WhenTheDatabaseIsNotThereYetTheConnectionMarksNothing) {
  StartConnected();
  InCallback([&] { SendEnable(1); });
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "1 [enable 1]"));
}

TEST_F(LoadTest, AStatusWithoutAConnectionMarksNothingAndTheConnectionLoads) {
  DatabaseConnects([] { FAIL(); });
  app_.on_connected = [&] {
    ReadConfiguration();
    SendEnable(1);
  };
  StartConnected();
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "1 full [enable 1]"));
}

TEST_F(LoadTest, AnEmptyConfigurationThatWasReadOnTheConnectionIsFull) {
  DatabaseConnects([] { FAIL(); });
  app_.on_connected = [] { ReadConfiguration(); };
  StartConnected();
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "1 full []"));
}

TEST_F(LoadTest, ALoadOnALaterConnectionIsFullToo) {
  StartConnected();
  DatabaseConnects([&] { SendEnable(1); });
  Heard();
  LoseManager();
  app_.on_connected = [&] {
    ReadConfiguration();
    SendEnable(2);
  };
  Reconnect();
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "2 full [enable 2]"));
}

TEST_F(LoadTest, ALaterLoadOfAConfigurationThatWasEmptiedMeanwhileIsFull) {
  StartConnected();
  DatabaseConnects([&] { SendEnable(1); });
  Heard();
  DatabaseConnects([] { ReadConfiguration(); });
  EXPECT_THAT(Heard(), ElementsAre("2 full []"));
}

TEST_F(LoadTest, ALaterLoadThatIsSkippedForAnUnchangedTransactionReplacesNothing) {
  StartConnected();
  DatabaseConnects([&] { SendEnable(1); });
  Heard();
  DatabaseConnects([] {});
  DatabaseConnects([] {});
  EXPECT_THAT(Heard(), IsEmpty());
  EXPECT_EQ(app_.connected, 1);
}

TEST_F(LoadTest, ANewManagerWhileTheDatabaseIsAwayGetsItsLoadWhenTheDatabaseIsBack) {
  StartConnected();
  DatabaseConnects([&] { SendEnable(1); });
  LoseManager();
  bool database = false;
  app_.on_connected = [&] {
    if (!database) return;
    ReadConfiguration();
    SendEnable(1);
  };
  Reconnect();
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello"));
  database = true;
  DatabaseConnects([] {});  // skipped: nothing has changed for the application
  ASSERT_TRUE(Until([&] { return app_.connected == 3; }));
  EXPECT_THAT(Heard(), ElementsAre("2 full [enable 1]"));
  DatabaseConnects([] {});
  EXPECT_EQ(app_.connected, 3);
}

TEST_F(LoadTest, ALoadThatCouldNotReadEverythingReplacesNothingAndIsTriedAgain) {
  bool fails = true;
  app_.on_connected = [&] {
    fails ? FailToRead() : ReadConfiguration();
    SendEnable(1);
  };
  StartConnected();
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "1 [enable 1]"));
  fails = false;
  ASSERT_TRUE(Until([&] { return app_.connected == 2; }));
  EXPECT_THAT(Heard(), ElementsAre("2 full [enable 1]"));
}

TEST_F(LoadTest, ALoadWithAnInterfaceThatCouldNotBeNamedReplacesNothingAndIsTriedAgain) {
  uint16_t port = 0;
  app_.on_connected = [&] {
    ReadConfiguration();
    SendEnable(port);
    SendEnable(2);
  };
  StartConnected();
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "1 [enable 0, enable 2]"));
  port = 1;
  ASSERT_TRUE(Until([&] { return app_.connected == 2; }));
  EXPECT_THAT(Heard(), ElementsAre("2 full [enable 1, enable 2]"));
}

TEST_F(LoadTest, AFullBatchThatWasNotAcknowledgedIsFullAgain) {
  StartConnected();
  Heard();
  manager_->acknowledges = false;
  DatabaseConnects([&] { SendEnable(1); });
  InCallback([&] { SendEnable(2); });
  EXPECT_THAT(Heard(), ElementsAre("1 full [enable 1]", "2 [enable 2]"));
  manager_->Drop();
  ASSERT_TRUE(Until([&] { return app_.connected == 2; }));
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "3 full [enable 1, enable 2]"));
}

TEST_F(LoadTest, ACallbackInWhichTheClientEndsSendsNoFullBatch) {
  StartConnected();
  Heard();
  InCallback([&] {
    client_->GetConnectionStatus();
    ReadConfiguration();
    SendEnable(1);
    client_.reset();
  });
  EXPECT_THAT(Heard(), ElementsAre("gone"));
}

}  // namespace
}  // namespace ip_spoofing_mgr

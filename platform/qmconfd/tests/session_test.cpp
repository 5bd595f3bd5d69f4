#include "qm_confd_cdb_session.h"

#include "fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kConnect = "connect read as the-app";

class Session : public InterfaceTest {
 protected:
  void SetUp() override { fake_.Start(); }
};

TEST_F(Session, StartsOnAConnectionNamedAfterItsOwnerAndEndsWithTheObject) {
  {
    const QmConfdCdbSession session(app_.get(), CDB_RUNNING, false);
    EXPECT_GE(session.Socket(), 0);
    EXPECT_THAT(fake_.trace, ElementsAre(kConnect, "start session 1"));
    fake_.trace.clear();
  }
  EXPECT_THAT(fake_.trace, ElementsAre("end session", "cdb_close"));
}

TEST_F(Session, WithReuseTheNextStartNeedsNoConnection) {
  int first = -1;
  {
    const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true);
    first = session.Socket();
  }
  EXPECT_THAT(fake_.trace, ElementsAre(kConnect, "start session 1", "end session"));
  fake_.trace.clear();
  {
    const QmConfdCdbSession session(app_.get(), CDB_PRE_COMMIT_RUNNING, true);
    EXPECT_EQ(session.Socket(), first);
  }
  EXPECT_THAT(fake_.trace, ElementsAre("set timeout 20", "start session 4", "end session"))
      << "the time limit of the earlier session is gone";
}

TEST_F(Session, WithoutReuseAKeptConnectionIsNotTaken) {
  { const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true); }
  fake_.trace.clear();
  { const QmConfdCdbSession session(app_.get(), CDB_RUNNING, false); }
  EXPECT_THAT(fake_.trace, ElementsAre(kConnect, "start session 1", "end session", "cdb_close"));
}

TEST_F(Session, TwoAtOnceHaveConnectionsOfTheirOwn) {
  {
    const QmConfdCdbSession running(app_.get(), CDB_RUNNING, true);
    const QmConfdCdbSession before(app_.get(), CDB_PRE_COMMIT_RUNNING, true);
    EXPECT_NE(running.Socket(), before.Socket());
  }
  fake_.trace.clear();
  const QmConfdCdbSession running(app_.get(), CDB_RUNNING, true);
  const QmConfdCdbSession before(app_.get(), CDB_RUNNING, true);
  EXPECT_EQ(Count(kConnect), 0) << "both were kept";
}

TEST_F(Session, AKeptConnectionWhoseServerHasGoneIsNotTaken) {
  { const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true); }
  fake_.Stop();
  fake_.trace.clear();
  {
    const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true);
    EXPECT_EQ(session.Socket(), -1);
  }
  EXPECT_THAT(fake_.trace, ElementsAre("cdb_close", kConnect));
  fake_.Start();
  const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true);
  EXPECT_GE(session.Socket(), 0);
}

TEST_F(Session, ALostServerConnectionDropsTheKeptOnes) {
  app_->Init(0);
  Pump([&] { return app_->IsInitialized(); });
  { const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true); }
  fake_.trace.clear();
  fake_.Drop("control");
  Pump([&] { return Count("AppConnect") == 1; });
  EXPECT_EQ(Count("cdb_close"), 2) << "the subscription's and the kept one's";
}

TEST_F(Session, AStartThatFailsOnAKeptConnectionIsTriedOnANewOne) {
  { const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true); }
  fake_.trace.clear();
  fake_.fail["start session"] = 1;
  const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true);
  EXPECT_GE(session.Socket(), 0);
  EXPECT_THAT(fake_.trace, ElementsAre("set timeout 20", "start session 1", "cdb_close", kConnect, "start session 1"));
}

TEST_F(Session, AFailedConnectionOrStartIsASessionWithoutSocket) {
  fake_.fail["read"] = 1;
  { EXPECT_EQ(QmConfdCdbSession(app_.get(), CDB_RUNNING, true).Socket(), -1); }
  EXPECT_THAT(fake_.trace, ElementsAre(kConnect));
  fake_.trace.clear();
  fake_.fail["start session"] = 1;
  { EXPECT_EQ(QmConfdCdbSession(app_.get(), CDB_RUNNING, true).Socket(), -1); }
  EXPECT_THAT(fake_.trace, ElementsAre(kConnect, "start session 1", "cdb_close")) << "and nothing is ended";
}

TEST_F(Session, AConnectionWhoseSessionDidNotEndIsNotKept) {
  fake_.fail["end session"] = 1;
  { const QmConfdCdbSession session(app_.get(), CDB_RUNNING, true); }
  EXPECT_THAT(fake_.trace, ElementsAre(kConnect, "start session 1", "end session", "cdb_close"));
}

TEST_F(Session, WithoutAnOwnerThereIsNone) {
  EXPECT_EQ(QmConfdCdbSession(nullptr, CDB_RUNNING, true).Socket(), -1);
  EXPECT_THAT(fake_.trace, IsEmpty());
}

}  // namespace

// The difference walk, change by change.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cdb_store_testing/models.h"
#include "confd_testing/sockets.h"

namespace {

using confd_testing::Edit;
using confd_testing::Put;
using confd_testing::Remove;
using Lines = std::vector<std::string>;

constexpr int kPrev = ITER_WANT_PREV;
constexpr int kAncestor = ITER_WANT_ANCESTOR_DELETE;

std::string Text(const confd_value_t* value) {
  if (value == nullptr) return "-";
  char text[64];
  confd_pp_value(text, sizeof text, value);
  return value->type == C_XMLTAG ? "present" : text;
}

struct Walk {
  confd_iter_ret (*answer)(const std::string& path);
  Lines lines;
};

confd_iter_ret OnChange(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* old_value, confd_value_t* new_value,
                        void* state) {
  static const char* const kOps[] = {"", "created", "deleted", "modified", "set", "moved", "attr"};
  auto& walk = *static_cast<Walk*>(state);
  char path[256];
  confd_pp_kpath(path, sizeof path, kp);
  std::string line = std::string(kOps[op]) + " " + path;
  if (old_value != nullptr || new_value != nullptr) line += " " + Text(old_value) + " > " + Text(new_value);
  walk.lines.push_back(line);
  return walk.answer(path);
}

confd_iter_ret Recurse(const std::string&) { return ITER_RECURSE; }
confd_iter_ret Continue(const std::string&) { return ITER_CONTINUE; }
confd_iter_ret StopAtFirst(const std::string&) { return ITER_STOP; }
confd_iter_ret UpAtLeaves(const std::string& path) { return path.back() == '}' ? ITER_RECURSE : ITER_UP; }
confd_iter_ret Up(const std::string&) { return ITER_UP; }

const std::vector<Edit> kBefore = {
    Put("/config/anti-ip-spoofing/interface{eth1}/allowed-ip/ipv4{10.0.0.1 5}/mac", "02:00:00:00:00:01"),
    Put("/config/anti-ip-spoofing/interface{eth1}/allowed-ip/ipv4{10.0.0.1 7}"),
    Put("/config/anti-ip-spoofing/interface{eth1}/allowed-ip/ipv6-all"),
    Put("/config/anti-ip-spoofing/interface{eth2}/allowed-ip/ipv4{10.0.0.2 0}"),
    Put("/config/anti-ip-spoofing/interface{eth3}"),
};
const std::string kIf = "/config/anti-ip-spoofing/interface";
const std::string kList = kIf + "/allowed-ip/ipv4";
const std::string kTop = "/config/anti-ip-spoofing";

struct WalkCase {
  const char* name;
  std::vector<Edit> edits;
  std::string target;
  int flags;
  confd_iter_ret (*answer)(const std::string&);
  Lines lines;
};

class DiffWalk : public ::testing::TestWithParam<WalkCase> {};

TEST_P(DiffWalk, CallsTheIterator) {
  confd_testing::TestServer server(cdb_store::testing::AntiSpoofingSchema());
  server.Commit(kBefore);
  confd_testing::Subscriber subscriber(server, {GetParam().target}, 0x41fef11b);
  subscriber.Deliver(server.Commit(GetParam().edits));
  Walk walk{GetParam().answer, {}};
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], OnChange, GetParam().flags, &walk), CONFD_OK);
  EXPECT_EQ(walk.lines, GetParam().lines);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_OK);
}

const Edit kNewEntry = Put(kIf + "{eth1}/allowed-ip/ipv4{9.0.0.1 100}/mac", "02:00:00:00:00:09");
const Edit kNewMac = Put(kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}/mac", "02:00:00:00:00:0a");
const Edit kNoMac = Remove(kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}/mac");
const Edit kNoEntry = Remove(kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 7}");
const Edit kNoEth1 = Remove(kIf + "{eth1}");
const Edit kNewIf = Put(kIf + "{eth0}/allowed-ip/ipv4{1.1.1.1 1}");
const Edit kAll = Put(kIf + "{eth1}/allowed-ip/all");
const Edit kNoIpv6All = Remove(kIf + "{eth1}/allowed-ip/ipv6-all");

INSTANTIATE_TEST_SUITE_P(
    All, DiffWalk,
    ::testing::Values(
        WalkCase{"EntryCreated",
                 {kNewEntry},
                 kList,
                 0,
                 Continue,
                 {"created " + kIf + "{eth1}/allowed-ip/ipv4{9.0.0.1 100}"}},
        WalkCase{"EntryCreatedRecursed",
                 {kNewEntry},
                 kList,
                 kPrev,
                 Recurse,
                 {"created " + kIf + "{eth1}/allowed-ip/ipv4{9.0.0.1 100}",
                  "set " + kIf + "{eth1}/allowed-ip/ipv4{9.0.0.1 100}/mac - > 02:00:00:00:00:09"}},
        WalkCase{"EntryDeleted",
                 {kNoEntry},
                 kList,
                 kPrev,
                 Recurse,
                 {"deleted " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 7}"}},
        WalkCase{
            "LeafChanged", {kNewMac}, kList, 0, Continue, {"modified " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}"}},
        WalkCase{"LeafChangedWithOldValue",
                 {kNewMac},
                 kList,
                 kPrev,
                 Recurse,
                 {"modified " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}",
                  "set " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}/mac 02:00:00:00:00:01 > 02:00:00:00:00:0a"}},
        WalkCase{"LeafChangedWithoutOldValue",
                 {kNewMac},
                 kList,
                 0,
                 Recurse,
                 {"modified " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}",
                  "set " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}/mac - > 02:00:00:00:00:0a"}},
        WalkCase{"LeafDeleted",
                 {kNoMac},
                 kList,
                 kPrev,
                 Recurse,
                 {"modified " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}",
                  "deleted " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}/mac 02:00:00:00:00:01 > -"}},
        WalkCase{"EmptyLeaves",
                 {kAll, kNoIpv6All},
                 kIf,
                 kPrev,
                 Recurse,
                 {"modified " + kIf + "{eth1}", "created " + kIf + "{eth1}/allowed-ip/all - > present",
                  "deleted " + kIf + "{eth1}/allowed-ip/ipv6-all present > -"}},
        WalkCase{"InterfaceModifiedFromBelow", {kNewMac}, kIf, kAncestor, Continue, {"modified " + kIf + "{eth1}"}},
        WalkCase{"InterfaceCreatedIsNotReportedBelow",
                 {kNewIf},
                 kList,
                 kAncestor,
                 Continue,
                 {"created " + kIf + "{eth0}/allowed-ip/ipv4{1.1.1.1 1}"}},
        WalkCase{"InterfaceDeleted", {kNoEth1}, kIf, kAncestor, Recurse, {"deleted " + kIf + "{eth1}"}},
        WalkCase{"AncestorDeletedOnce", {kNoEth1}, kList, kAncestor, Recurse, {"deleted " + kIf + "{eth1}"}},
        WalkCase{"AncestorDeletedUnwanted", {kNoEth1}, kList, 0, Recurse, {}},
        WalkCase{"AncestorWithoutEntriesDeleted",
                 {Remove(kIf + "{eth3}")},
                 kList,
                 kAncestor,
                 Recurse,
                 {"deleted " + kIf + "{eth3}"}},
        WalkCase{"EverythingDeleted",
                 {Remove(kTop)},
                 kList,
                 kAncestor | ITER_WANT_SCHEMA_ORDER,
                 Continue,
                 {"deleted " + kIf + "{eth1}", "deleted " + kIf + "{eth2}", "deleted " + kIf + "{eth3}"}},
        WalkCase{"KeyOrderAcrossInterfaces",
                 {kNewEntry, kNewIf, kNoEntry, Put(kIf + "{eth2}/allowed-ip/ipv4{10.0.0.2 1}")},
                 kList,
                 kAncestor,
                 Continue,
                 {"created " + kIf + "{eth0}/allowed-ip/ipv4{1.1.1.1 1}",
                  "created " + kIf + "{eth1}/allowed-ip/ipv4{9.0.0.1 100}",
                  "deleted " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 7}",
                  "created " + kIf + "{eth2}/allowed-ip/ipv4{10.0.0.2 1}"}},
        WalkCase{"DeletedAndMadeAgain",
                 {kNoEntry, Put(kNoEntry.path), kNewMac},
                 kList,
                 0,
                 Continue,
                 {"modified " + kIf + "{eth1}/allowed-ip/ipv4{10.0.0.1 5}"}},
        WalkCase{
            "KeyedTarget", {kNewEntry, kNewIf, kNoEth1}, kIf + "{eth0}", 0, Continue, {"created " + kIf + "{eth0}"}},
        WalkCase{"KeyedTargetUnchanged", {kNewIf}, kIf + "{eth1}", kAncestor, Recurse, {}},
        WalkCase{"LeafTarget",
                 {kAll, kNewMac},
                 kIf + "/allowed-ip/all",
                 kPrev,
                 Continue,
                 {"created " + kIf + "{eth1}/allowed-ip/all - > present"}},
        WalkCase{"ContainerTarget",
                 {kAll, kNewIf},
                 kTop,
                 0,
                 Continue,
                 {"created " + kIf + "{eth0}", "modified " + kIf + "{eth1}"}},
        WalkCase{"RootTarget", {kAll}, "/", 0, Continue, {"modified " + kIf + "{eth1}"}},
        WalkCase{"Stopped", {Remove(kTop)}, kIf, 0, StopAtFirst, {"deleted " + kIf + "{eth1}"}},
        WalkCase{"UpFromALeafLeavesItsContainer",
                 {kAll, kNoIpv6All, kNewIf},
                 kIf,
                 0,
                 UpAtLeaves,
                 {"created " + kIf + "{eth0}", "created " + kIf + "{eth0}/allowed-ip/ipv4{1.1.1.1 1}",
                  "modified " + kIf + "{eth1}", "created " + kIf + "{eth1}/allowed-ip/all - > present"}},
        WalkCase{"UpFromAnEntryGoesToTheNextInterface",
                 {kNewEntry, kNoEntry, kNewIf, Remove(kIf + "{eth2}/allowed-ip/ipv4{10.0.0.2 0}")},
                 kList,
                 0,
                 Up,
                 {"created " + kIf + "{eth0}/allowed-ip/ipv4{1.1.1.1 1}",
                  "created " + kIf + "{eth1}/allowed-ip/ipv4{9.0.0.1 100}",
                  "deleted " + kIf + "{eth2}/allowed-ip/ipv4{10.0.0.2 0}"}}),
    [](const auto& row) { return row.param.name; });

confd_iter_ret CheckShape(confd_hkeypath_t* kp, confd_iter_op, confd_value_t*, confd_value_t*, void* state) {
  EXPECT_EQ(kp->len, 7);
  EXPECT_EQ(CONFD_GET_IPV4(&kp->v[0][0]).s_addr, htonl(0x09000001));
  EXPECT_EQ(CONFD_GET_INT32(&kp->v[0][1]), 100);
  EXPECT_EQ(kp->v[0][2].type, C_NOEXISTS);
  EXPECT_EQ(kp->v[3][0].type, C_BUF);
  EXPECT_STREQ(reinterpret_cast<const char*>(CONFD_GET_BUFPTR(&kp->v[kp->len - 4][0])), "eth1");
  EXPECT_EQ(CONFD_GET_BUFSIZE(&kp->v[3][0]), 4U);
  EXPECT_EQ(CONFD_GET_XMLTAG_NS(&kp->v[6][0]), 0x41fef11bU);
  ++*static_cast<int*>(state);
  return ITER_CONTINUE;
}

TEST(DiffWalkKeypath, IsDeepestFirstAndTerminated) {
  confd_testing::TestServer server(cdb_store::testing::AntiSpoofingSchema());
  server.Commit(kBefore);
  confd_testing::Subscriber subscriber(server, {kList}, 0x41fef11b);
  subscriber.Deliver(server.Commit({kNewEntry}));
  int calls = 0;
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], CheckShape, 0, &calls), CONFD_OK);
  EXPECT_EQ(calls, 1);
}

confd_iter_ret CloseSocket(confd_hkeypath_t*, confd_iter_op, confd_value_t*, confd_value_t*, void* state) {
  auto& [sock, calls] = *static_cast<std::pair<int, int>*>(state);
  if (calls++ == 0) cdb_close(sock);
  return ITER_RECURSE;
}

TEST(DiffWalkKeypath, TheIteratorMayCloseItsOwnSocket) {
  confd_testing::TestServer server(cdb_store::testing::AntiSpoofingSchema());
  server.Commit(kBefore);
  confd_testing::Subscriber subscriber(server, {kIf}, 0x41fef11b);
  subscriber.Deliver(server.Commit({kNewEntry, kNoEntry}));
  std::pair<int, int> state{subscriber.sock, 0};
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], CloseSocket, 0, &state), CONFD_OK);
  EXPECT_EQ(state.second, 4);
}

}  // namespace

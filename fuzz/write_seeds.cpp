#include <cstdio>
#include <filesystem>
#include <fstream>

#include "cdb_store_testing/models.h"
#include "confd_wire/codec.h"
#include "ip_spoofing_mgr_wire/messages.h"

namespace {

std::filesystem::path root;

void Write(const std::string& target, const std::string& name, const std::string& bytes) {
  const auto directory = root / target;
  std::filesystem::create_directories(directory);
  std::ofstream{directory / name, std::ios::binary} << bytes;
}

void WriteConfdMessages() {
  using namespace confd_wire;
  const auto write = [](const char* name, auto message) { Write("confd_wire", name, Encode(message)); };
  const Value number{cdb_store::ValueType::kInt32, cdb_store::StoreInt<int32_t>(17)};
  write("hello", Hello{.name = "daemon", .daemon_id = 3});
  write("hello-reply", HelloReply{});
  Subscribe subscribe;
  subscribe.priority = 3;
  write("subscribe", subscribe);
  write("subscribe-reply", SubscribeReply{.error = "no"});
  write("subscribe-done", SubscribeDone{});
  write("subscribe-done-reply", SubscribeDoneReply{});
  write("trigger", Trigger{.priority = 3, .points = {1, 2}});
  write("sync", Sync{.txid = 4});
  write("register", Register{.callpoints = {{"point", true, true}, {"other", false, true}}});
  write("register-reply", RegisterReply{});
  write("trans-init", TransInit{});
  write("trans-init-reply", TransInitReply{});
  write("trans-finish", TransFinish{});
  ReadRows read_rows;
  read_rows.callpoint = "point";
  read_rows.limit = 8;
  write("read-rows", read_rows);
  const Row row{{number, number}, {{.tag = 1, .value = number}, {.tag = 2, .value = number}}};
  write("rows", Rows{.rows = {row, row}});
  write("read-failed", ReadFailed{.text = "no"});
}

void WriteManagerMessages() {
  using namespace ip_spoofing_mgr::wire;
  const auto write = [](const char* name, const std::string& bytes) { Write("mgr_wire", name, bytes); };
  Request put;
  put.kind = RequestKind::kPut;
  const Request requests[] = {Request{}, put};
  const ip_spoofing_mgr::AllowedIpStatusEntry rows[2] = {};
  write("hello", EncodeHello({.instance = 7, .name = "daemon"}));
  write("batch", EncodeBatchPart(1, true, false, requests));
  write("id", EncodeId(5));
  write("sequence", EncodeSequence(6));
  write("rows", EncodeRows(5, rows));
  write("list-end", EncodeListEnd({5, 2}));
  write("failure", EncodeFailure({ErrorCode::kBusy, "busy"}));
}

void WriteManagerStream() {
  using namespace ip_spoofing_mgr::wire;
  const auto frame = [](FrameType type, const std::string& payload) {
    const auto size = static_cast<uint32_t>(payload.size());
    std::string bytes{reinterpret_cast<const char*>(&size), sizeof size};
    return bytes + static_cast<char>(type) + payload;
  };
  const std::string hello = frame(FrameType::kHello, EncodeHello({.instance = 7, .name = "daemon"}));
  const std::string empty = frame(FrameType::kListRequest, "");
  Write("mgr_stream", "frames", "\x23" + hello + empty + frame(FrameType::kListRequest, EncodeId(5)) + empty);
  Write("mgr_stream", "half-a-frame", "\x11" + empty + hello.substr(0, 7));
  Write("mgr_stream", "too-large", "\x04" + empty + std::string("\x01\x00\x10\x00\x01", 5) + empty);
}

void WriteNames() {
  std::string records;
  for (const char number : {'\1', '\2', '\3'}) {
    std::string record = "eth" + std::to_string(static_cast<int>(number));
    record.resize(24);
    record[16] = number;
    records += record;
  }
  Write("limid_names", "three", '\1' + records);
  Write("limid_names", "three-and-a-half", '\1' + records + "eth4");
  Write("limid_names", "header", std::string("\0limid names, version 1\n\0", 25));
}

}  // namespace

/// One seed per message and per test schema, for the fuzzer to start from.
int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  root = argv[1];
  Write("schema", "anti-spoofing", cdb_store::testing::AntiSpoofingSchema().Serialise());
  Write("schema", "box", cdb_store::testing::BoxSchema().Serialise());
  WriteConfdMessages();
  WriteManagerMessages();
  WriteManagerStream();
  WriteNames();
  return 0;
}

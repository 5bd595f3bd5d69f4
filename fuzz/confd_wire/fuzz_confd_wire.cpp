#include "confd_wire/codec.h"
#include "require.h"

namespace {

using namespace confd_wire;

/// A message that was read is written as a packet that is read as the same message.
template <class M>
int Read(std::string_view packet) {
  const auto message = Decode<M>(packet);
  if (!message) return 0;
  const std::string written = Encode(*message);
  const auto again = Decode<M>(written);
  fuzz::Require(again.has_value(), "what was read can be written and read");
  fuzz::Require(Encode(*again) == written, "and is the same");
  fuzz::Require(written.size() == packet.size(), "and as long as the packet");
  return 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const std::string_view packet{reinterpret_cast<const char*>(data), size};
  const int read = Read<Hello>(packet) + Read<HelloReply>(packet) + Read<Subscribe>(packet) +
                   Read<SubscribeReply>(packet) + Read<SubscribeDone>(packet) + Read<SubscribeDoneReply>(packet) +
                   Read<Trigger>(packet) + Read<Sync>(packet) + Read<Register>(packet) + Read<RegisterReply>(packet) +
                   Read<TransInit>(packet) + Read<TransInitReply>(packet) + Read<TransFinish>(packet) +
                   Read<ReadRows>(packet) + Read<Rows>(packet) + Read<ReadFailed>(packet);
  fuzz::Require(read <= 1, "a packet is of one type");
  fuzz::Require(read == 0 || TypeOf(packet).has_value(), "and says which");
  return 0;
}

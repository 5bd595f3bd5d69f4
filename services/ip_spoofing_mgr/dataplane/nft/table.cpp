#include "dataplane/nft/table.h"

#include <libnftnl/chain.h>
#include <libnftnl/object.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "dataplane/nft/rule_text.h"

namespace mgr::nft {
namespace {

constexpr size_t kElementsPerMessage = 1000;  // the length of a list of them has 16 bits
constexpr uint32_t kIngress = 0;              // NF_NETDEV_INGRESS
constexpr int kPriority = -500;               // before what other programs hang there by default

template <auto Free>
struct FreeWith {
  template <class T>
  void operator()(T* object) const noexcept {
    Free(object);
  }
};
using NftTable = std::unique_ptr<nftnl_table, FreeWith<nftnl_table_free>>;
using NftSet = std::unique_ptr<nftnl_set, FreeWith<nftnl_set_free>>;
using NftChain = std::unique_ptr<nftnl_chain, FreeWith<nftnl_chain_free>>;
using NftObject = std::unique_ptr<nftnl_obj, FreeWith<nftnl_obj_free>>;
using NftRule = std::unique_ptr<nftnl_rule, FreeWith<nftnl_rule_free>>;

NftSet MakeSet(const std::string& table, const std::string& name) {
  NftSet set{nftnl_set_alloc()};
  nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, table.c_str());
  nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name.c_str());
  nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, NFPROTO_NETDEV);
  return set;
}

NftChain MakeChain(const std::string& table, const std::string& name) {
  NftChain chain{nftnl_chain_alloc()};
  nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table.c_str());
  nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name.c_str());
  nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_FAMILY, NFPROTO_NETDEV);
  return chain;
}

NftObject MakeCounter(const std::string& table, const std::string& name) {
  NftObject counter{nftnl_obj_alloc()};
  nftnl_obj_set_str(counter.get(), NFTNL_OBJ_TABLE, table.c_str());
  if (!name.empty()) nftnl_obj_set_str(counter.get(), NFTNL_OBJ_NAME, name.c_str());
  nftnl_obj_set_u32(counter.get(), NFTNL_OBJ_TYPE, NFT_OBJECT_COUNTER);
  nftnl_obj_set_u32(counter.get(), NFTNL_OBJ_FAMILY, NFPROTO_NETDEV);
  return counter;
}

common::Error DumpError(const char* what, const std::string& object, int error) {
  return common::SystemError(what, object, error);
}

}  // namespace

void Table::Create(Batch& batch) const {
  const NftTable table{nftnl_table_alloc()};
  nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, name_.c_str());
  batch.Add(NFT_MSG_NEWTABLE, NLM_F_CREATE,
            [&](nlmsghdr* message) { nftnl_table_nlmsg_build_payload(message, table.get()); });
}

void Table::Delete(Batch& batch) const {
  const NftTable table{nftnl_table_alloc()};
  nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, name_.c_str());
  batch.Add(NFT_MSG_DELTABLE, 0, [&](nlmsghdr* message) { nftnl_table_nlmsg_build_payload(message, table.get()); });
}

common::Status Table::DeleteNow() const {
  Batch batch;
  Delete(batch);
  const int error = socket_->Commit(std::move(batch));
  return error == 0 || error == ENOENT ? common::Ok() : common::SystemError("delete the table", name_, error);
}

void Table::AddSet(Batch& batch, const std::string& name, uint32_t key_size, uint32_t room) const {
  static uint32_t id = 0;
  const NftSet set = MakeSet(name_, name);
  nftnl_set_set_u32(set.get(), NFTNL_SET_ID, ++id);
  nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, 0);
  nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, key_size);
  if (room != 0) nftnl_set_set_u32(set.get(), NFTNL_SET_DESC_SIZE, room);
  batch.Add(NFT_MSG_NEWSET, NLM_F_CREATE,
            [&](nlmsghdr* message) { nftnl_set_nlmsg_build_payload(message, set.get()); });
}

void Table::PutElements(Batch& batch, uint16_t type, uint16_t flags, const std::string& name,
                        const std::vector<Element>& elements) const {
  for (size_t from = 0; from < elements.size(); from += kElementsPerMessage) {
    const NftSet set = MakeSet(name_, name);
    for (size_t i = from; i < std::min(elements.size(), from + kElementsPerMessage); ++i) {
      const auto& [key, user_data] = elements[i];
      nftnl_set_elem* element = nftnl_set_elem_alloc();
      nftnl_set_elem_set(element, NFTNL_SET_ELEM_KEY, key.data(), static_cast<uint32_t>(key.size()));
      if (!user_data.empty())
        nftnl_set_elem_set(element, NFTNL_SET_ELEM_USERDATA, user_data.data(), static_cast<uint32_t>(user_data.size()));
      nftnl_set_elem_add(set.get(), element);
    }
    batch.Add(type, flags, [&](nlmsghdr* message) { nftnl_set_elems_nlmsg_build_payload(message, set.get()); });
  }
}

void Table::AddElements(Batch& batch, const std::string& set, const std::vector<Element>& elements) const {
  PutElements(batch, NFT_MSG_NEWSETELEM, NLM_F_CREATE, set, elements);
}

void Table::DeleteElements(Batch& batch, const std::string& set, const std::vector<Element>& elements) const {
  PutElements(batch, NFT_MSG_DELSETELEM, 0, set, elements);
}

void Table::AddChain(Batch& batch, const std::string& name, const std::string& interface) const {
  const NftChain chain = MakeChain(name_, name);
  if (!interface.empty()) {
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter");
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, kIngress);
    nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, kPriority);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_DEV, interface.c_str());
  }
  batch.Add(NFT_MSG_NEWCHAIN, NLM_F_CREATE,
            [&](nlmsghdr* message) { nftnl_chain_nlmsg_build_payload(message, chain.get()); });
}

void Table::DeleteChain(Batch& batch, const std::string& name) const {
  const NftChain chain = MakeChain(name_, name);
  batch.Add(NFT_MSG_DELCHAIN, 0, [&](nlmsghdr* message) { nftnl_chain_nlmsg_build_payload(message, chain.get()); });
}

void Table::FlushChain(Batch& batch, const std::string& name) const {
  const NftRule rule{nftnl_rule_alloc()};
  nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, name_.c_str());
  nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, name.c_str());
  batch.Add(NFT_MSG_DELRULE, 0, [&](nlmsghdr* message) { nftnl_rule_nlmsg_build_payload(message, rule.get()); });
}

void Table::AddRule(Batch& batch, const Rule& rule) const {
  nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, name_.c_str());
  batch.Add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND,
            [&](nlmsghdr* message) { nftnl_rule_nlmsg_build_payload(message, rule.get()); });
}

void Table::AddCounter(Batch& batch, const std::string& name, uint64_t packets) const {
  const NftObject counter = MakeCounter(name_, name);
  nftnl_obj_set_u64(counter.get(), NFTNL_OBJ_CTR_PKTS, packets);
  nftnl_obj_set_u64(counter.get(), NFTNL_OBJ_CTR_BYTES, 0);
  batch.Add(NFT_MSG_NEWOBJ, NLM_F_CREATE,
            [&](nlmsghdr* message) { nftnl_obj_nlmsg_build_payload(message, counter.get()); });
}

void Table::DeleteCounter(Batch& batch, const std::string& name) const {
  const NftObject counter = MakeCounter(name_, name);
  batch.Add(NFT_MSG_DELOBJ, 0, [&](nlmsghdr* message) { nftnl_obj_nlmsg_build_payload(message, counter.get()); });
}

namespace {

/// Calls `take` for each element in a message of a dump.
void TakeElements(const nlmsghdr* message, const std::function<void(Element)>& take) {
  const NftSet set{nftnl_set_alloc()};
  if (nftnl_set_elems_nlmsg_parse(message, set.get()) < 0) return;
  const auto copy = [](nftnl_set_elem* element, void* data) {
    Element result;
    uint32_t size = 0;
    const auto* key = static_cast<const uint8_t*>(nftnl_set_elem_get(element, NFTNL_SET_ELEM_KEY, &size));
    if (key != nullptr) result.key.assign(key, key + size);
    if (nftnl_set_elem_is_set(element, NFTNL_SET_ELEM_USERDATA)) {
      const auto* more = static_cast<const uint8_t*>(nftnl_set_elem_get(element, NFTNL_SET_ELEM_USERDATA, &size));
      result.user_data.assign(more, more + size);
    }
    (*static_cast<const std::function<void(Element)>*>(data))(std::move(result));
    return 0;
  };
  nftnl_set_elem_foreach(set.get(), copy, const_cast<std::function<void(Element)>*>(&take));
}

}  // namespace

int Table::StartElements(Socket& socket, const std::string& set) const {
  const NftSet request = MakeSet(name_, set);
  return socket.StartDump(NFT_MSG_GETSETELEM,
                          [&](nlmsghdr* message) { nftnl_set_elems_nlmsg_build_payload(message, request.get()); });
}

int Table::ContinueElements(Socket& socket, const std::function<void(Element)>& take) {
  return socket.ContinueDump([&take](const nlmsghdr* message) { TakeElements(message, take); });
}

common::Result<std::vector<Element>> Table::Elements(const std::string& name) const {
  std::vector<Element> elements;
  const NftSet request = MakeSet(name_, name);
  const int error = socket_->Dump(
      NFT_MSG_GETSETELEM, [&](nlmsghdr* message) { nftnl_set_elems_nlmsg_build_payload(message, request.get()); },
      [&](const nlmsghdr* message) {
        TakeElements(message, [&elements](Element element) { elements.push_back(std::move(element)); });
      });
  if (error != 0) return DumpError("read the elements of", name, error);
  return elements;
}

common::Result<std::map<std::string, std::string>> Table::Chains() const {
  std::map<std::string, std::string> chains;
  const int error = socket_->Dump(
      NFT_MSG_GETCHAIN, [](nlmsghdr*) {},
      [&](const nlmsghdr* message) {
        const NftChain chain{nftnl_chain_alloc()};
        if (nftnl_chain_nlmsg_parse(message, chain.get()) < 0) return;
        if (name_ != nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_TABLE)) return;
        const char* device = nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_DEV);
        chains.emplace(nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_NAME), device != nullptr ? device : "");
      });
  if (error != 0) return DumpError("read the chains of", name_, error);
  return chains;
}

common::Result<std::map<std::string, uint64_t>> Table::Counters() const {
  std::map<std::string, uint64_t> counters;
  const NftObject request = MakeCounter(name_, {});
  const int error = socket_->Dump(
      NFT_MSG_GETOBJ, [&](nlmsghdr* message) { nftnl_obj_nlmsg_build_payload(message, request.get()); },
      [&](const nlmsghdr* message) {
        const NftObject counter{nftnl_obj_alloc()};
        if (nftnl_obj_nlmsg_parse(message, counter.get()) < 0) return;
        if (name_ != nftnl_obj_get_str(counter.get(), NFTNL_OBJ_TABLE)) return;
        counters.emplace(nftnl_obj_get_str(counter.get(), NFTNL_OBJ_NAME),
                         nftnl_obj_get_u64(counter.get(), NFTNL_OBJ_CTR_PKTS));
      });
  if (error != 0) return DumpError("read the counters of", name_, error);
  return counters;
}

common::Result<std::vector<std::string>> Table::Names(Socket& socket) {
  std::vector<std::string> names;
  const int error = socket.Dump(
      NFT_MSG_GETTABLE, [](nlmsghdr*) {},
      [&](const nlmsghdr* message) {
        const NftTable table{nftnl_table_alloc()};
        if (nftnl_table_nlmsg_parse(message, table.get()) < 0) return;
        names.emplace_back(nftnl_table_get_str(table.get(), NFTNL_TABLE_NAME));
      });
  if (error != 0) return DumpError("read the tables", {}, error);
  return names;
}

common::Result<std::optional<uint32_t>> Table::Flags() const {
  std::optional<uint32_t> flags;
  const int error = socket_->Dump(
      NFT_MSG_GETTABLE, [](nlmsghdr*) {},
      [&](const nlmsghdr* message) {
        const NftTable table{nftnl_table_alloc()};
        if (nftnl_table_nlmsg_parse(message, table.get()) < 0) return;
        if (name_ == nftnl_table_get_str(table.get(), NFTNL_TABLE_NAME))
          flags = nftnl_table_get_u32(table.get(), NFTNL_TABLE_FLAGS);
      });
  if (error != 0) return DumpError("read the table", name_, error);
  return flags;
}

std::string Table::FormOf(const std::string& interface) {
  if (interface.empty()) return "regular";
  return "filter hook " + std::to_string(kIngress) + " device " + interface + " priority " + std::to_string(kPriority) +
         " policy " + std::to_string(NF_ACCEPT);
}

common::Result<std::map<std::string, std::string>> Table::ChainForms() const {
  std::map<std::string, std::string> forms;
  const int error = socket_->Dump(
      NFT_MSG_GETCHAIN, [](nlmsghdr*) {},
      [&](const nlmsghdr* message) {
        const NftChain chain{nftnl_chain_alloc()};
        if (nftnl_chain_nlmsg_parse(message, chain.get()) < 0) return;
        if (name_ != nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_TABLE)) return;
        std::string form = "regular";
        if (nftnl_chain_is_set(chain.get(), NFTNL_CHAIN_HOOKNUM)) {
          const char* type = nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_TYPE);
          const char* device = nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_DEV);
          form = std::string{type != nullptr ? type : "?"} + " hook " +
                 std::to_string(nftnl_chain_get_u32(chain.get(), NFTNL_CHAIN_HOOKNUM)) + " device " +
                 (device != nullptr ? device : "?") + " priority " +
                 std::to_string(nftnl_chain_get_s32(chain.get(), NFTNL_CHAIN_PRIO)) + " policy " +
                 std::to_string(nftnl_chain_get_u32(chain.get(), NFTNL_CHAIN_POLICY));
        }
        forms.emplace(nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_NAME), form);
      });
  if (error != 0) return DumpError("read the chains of", name_, error);
  return forms;
}

common::Result<std::vector<std::string>> Table::RuleTexts(const std::string& chain) const {
  const NftRule request{nftnl_rule_alloc()};
  nftnl_rule_set_str(request.get(), NFTNL_RULE_TABLE, name_.c_str());
  nftnl_rule_set_str(request.get(), NFTNL_RULE_CHAIN, chain.c_str());
  std::vector<std::string> texts;
  const int error = socket_->Dump(
      NFT_MSG_GETRULE, [&](nlmsghdr* message) { nftnl_rule_nlmsg_build_payload(message, request.get()); },
      [&](const nlmsghdr* message) {
        const NftRule rule{nftnl_rule_alloc()};
        if (nftnl_rule_nlmsg_parse(message, rule.get()) < 0) return;
        if (name_ != nftnl_rule_get_str(rule.get(), NFTNL_RULE_TABLE) ||
            chain != nftnl_rule_get_str(rule.get(), NFTNL_RULE_CHAIN))
          return;
        texts.push_back(TextOf(rule.get()));
      });
  if (error != 0) return DumpError("read the rules of", chain, error);
  return texts;
}

}  // namespace mgr::nft

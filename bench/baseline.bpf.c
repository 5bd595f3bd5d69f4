// What the filter is measured against: nothing, and one look-up in a map like that of the entries.
#include <linux/bpf.h>
#include <linux/pkt_cls.h>
// after linux/bpf.h
#include <bpf/bpf_helpers.h>

#include "dataplane/tcx/layout.h"

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 1);  // set when loaded
  __type(key, struct plane_entry_key);
  __type(value, struct verdict_entry);
} bare SEC(".maps");

volatile __u32 wanted_port_vlan, wanted_source_be;

SEC("tc")
int empty(struct __sk_buff* skb) {
  (void)skb;
  return TC_ACT_UNSPEC;
}

SEC("tc")
int look_up(struct __sk_buff* skb) {
  (void)skb;
  const struct plane_entry_key key = {.port_vlan = wanted_port_vlan, .source_be = wanted_source_be};
  return bpf_map_lookup_elem(&bare, &key) ? TC_ACT_UNSPEC : TC_ACT_OK;
}

char LICENSE[] SEC("license") = "GPL";

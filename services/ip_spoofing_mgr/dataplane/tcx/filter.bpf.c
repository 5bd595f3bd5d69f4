// The filter of one port, at its tcx ingress hook. Attached only to managed ports, so a look-up that fails where it
// must not drops the frame.
#include <linux/bpf.h>
#include <linux/pkt_cls.h>
// after linux/bpf.h
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "dataplane/tcx/layout.h"

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, PLANE_MAX_IFINDEX);
  __type(key, __u32);
  __type(value, struct plane_port);
} ports SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 1);  // set when loaded
  __type(key, struct plane_entry_key);
  __type(value, struct verdict_entry);
} entries SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, PLANE_MAX_PORTS* PLANE_CELLS_PER_PORT);
  __type(key, __u32);
  __type(value, __u64);
} counters SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, PLANE_MAX_PORTS);
  __type(key, __u32);
  __type(value, struct plane_rate);
} rate SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, PLANE_VIOLATORS);
  __type(key, struct plane_violator_key);
  __type(value, struct plane_violator);
} violators SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, PLANE_EVENT_BYTES);
} events SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, PLANE_MAX_PORTS);
  __type(key, __u32);
  __type(value, struct plane_record);
} records SEC(".maps");

static __always_inline void note_violator(const struct plane_violator_key* key, __u16 ethertype, __u64 now) {
  struct plane_violator* known = bpf_map_lookup_elem(&violators, key);
  if (known) {
    __sync_fetch_and_add(&known->frames, 1);
    known->last_ns = now;
    known->ethertype = ethertype;
    return;
  }
  struct plane_violator first = {.frames = 1, .first_ns = now, .last_ns = now, .ethertype = ethertype};
  bpf_map_update_elem(&violators, key, &first, BPF_ANY);
}

static __always_inline void report(__u32 port_id, const struct plane_violator_key* key, __u16 ethertype, __u64 now) {
  struct plane_rate* limit = bpf_map_lookup_elem(&rate, &port_id);
  if (!limit) return;
  if (now - limit->window_ns >= 1000000000ull) {
    limit->window_ns = now;
    limit->sent = 0;
  }
  struct plane_event* event = 0;
  if (limit->sent < PLANE_EVENTS_PER_SECOND) event = bpf_ringbuf_reserve(&events, sizeof *event, 0);
  if (!event) {
    ++limit->held_back;
    return;
  }
  __builtin_memset(event, 0, sizeof *event);
  event->time_ns = now;
  event->frames = 1ull + limit->held_back;
  event->key = *key;
  event->ethertype = ethertype;
  ++limit->sent;
  limit->held_back = 0;
  bpf_ringbuf_submit(event, 0);
}

// Not inlined: what is done for a dropped frame stays out of the way of the passed ones.
static __attribute__((noinline)) int note_drop(__u32 port_id, const struct verdict_keys* keys, __u32 reason) {
  if (!keys) return 0;
  const struct plane_violator_key key = {.port_vlan = port_id << 12 | keys->vlan,
                                         .source_be = keys->source_be,
                                         .mac = keys->mac,
                                         .reason = (__u8)reason,
                                         .has_source = (__u8)verdict_has_source(keys)};
  const __u64 now = bpf_ktime_get_ns();
  note_violator(&key, keys->ethertype, now);
  report(port_id, &key, keys->ethertype, now);
  return 0;
}

static __always_inline struct verdict_frame frame_of(struct __sk_buff* skb) {
  const struct verdict_frame frame = {.data = (const __u8*)(long)skb->data,
                                      .data_end = (const __u8*)(long)skb->data_end,
                                      .length = skb->len,
                                      .tag_present = skb->vlan_present != 0,
                                      .tag_tci = (__u16)skb->vlan_tci,
                                      .tag_protocol = bpf_ntohs((__u16)skb->vlan_proto),
                                      .aggregated = skb->gso_size != 0};
  return frame;
}

static __always_inline const struct verdict_entry* find_entry(__u32 port_id, const struct verdict_keys* keys) {
  const struct plane_entry_key key = {.port_vlan = port_id << 12 | keys->vlan, .source_be = keys->source_be};
  return bpf_map_lookup_elem(&entries, &key);
}

static __always_inline void count_frame(__u32 port_id, int monitored, __u32 reason) {
  const __u32 cell = PLANE_CELL(port_id, monitored, reason);
  __u64* count = bpf_map_lookup_elem(&counters, &cell);
  if (count) ++*count;
}

// A load of both words of a port in one: an update of the port is seen whole or not at all.
union port_word {
  __u64 word;
  struct plane_port port;
};

static __always_inline int conclude(__u64 port_word, const struct verdict_keys* keys,
                                    const struct verdict_entry* entry) {
  const union port_word now = {.word = port_word};
  const __u32 port_id = now.port.port_id;
  const struct verdict_port state = now.port.state;
  const struct verdict result = verdict_decide(&state, keys, entry);
  count_frame(port_id, result.drop && state.monitor, result.reason);
  if (!result.drop) return TC_ACT_UNSPEC;
  note_drop(port_id, keys, result.reason);
  return state.monitor ? TC_ACT_UNSPEC : TC_ACT_SHOT;
}

// Not inlined, as the next one: the code of the frames that are few stays out of the way of the others.
static __attribute__((noinline)) int conclude_plain(__u64 port_word, const struct verdict_keys* keys,
                                                    const struct verdict_entry* entry) {
  return keys ? conclude(port_word, keys, entry) : TC_ACT_SHOT;
}

// The whole verdict table.
static __attribute__((noinline)) int judge(struct __sk_buff* skb, __u64 port_word) {
  const union port_word now = {.word = port_word};
  const struct verdict_port state = now.port.state;
  struct verdict_keys keys = {};
  const struct verdict_entry* entry = 0;
  if (!verdict_is_settled(&state)) {
    __u32 wanted = skb->len < VERDICT_HEADER_BYTES ? skb->len : VERDICT_HEADER_BYTES;
    if ((__u64)(skb->data_end - skb->data) < wanted && bpf_skb_pull_data(skb, wanted)) return TC_ACT_SHOT;
    const struct verdict_frame frame = frame_of(skb);
    verdict_parse(&frame, &keys);
    if (verdict_wants_entry(&state, &keys)) entry = find_entry(now.port.port_id, &keys);
  }
  return conclude(port_word, &keys, entry);
}

SEC("tc")
int filter_ingress(struct __sk_buff* skb) {
  const __u32 ifindex = skb->ifindex;
  const struct plane_port* found = bpf_map_lookup_elem(&ports, &ifindex);
  if (!found) return TC_ACT_SHOT;
  const union port_word now = {.word = *(const volatile __u64*)found};
  const __u32 port_id = now.port.port_id;
  const struct verdict_port state = now.port.state;
  if (port_id == 0 || !state.enabled) return TC_ACT_UNSPEC;

  // The ordinary frame from an allowed source: the same rules, without those that do not concern it.
  const struct verdict_frame frame = frame_of(skb);
  struct verdict_keys keys;
  if (!verdict_parse_plain(&frame, &keys) || !verdict_wants_entry(&state, &keys)) return judge(skb, now.word);
  const struct verdict_entry* entry = find_entry(port_id, &keys);
  if (entry) {
    const struct verdict result = verdict_decide(&state, &keys, entry);
    if (!result.drop) {
      count_frame(port_id, 0, result.reason);
      return TC_ACT_UNSPEC;
    }
  }
  const struct verdict_keys spoofed = keys;  // a copy, so that the others stay in registers
  return conclude_plain(now.word, &spoofed, entry);
}

char LICENSE[] SEC("license") = "GPL";

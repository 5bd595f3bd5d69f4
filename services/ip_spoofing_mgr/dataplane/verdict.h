/// @file verdict.h
/// The frame parser and the verdict rules, once: compiled into the kernel program (clang -target bpf, UAPI headers
/// only) and into every user of the rules in user space. No allocation, no loop, no call of a function that is not
/// here.
///
/// One judgement: verdict_parse() reads the frame; when verdict_wants_entry() says so, the caller looks up the entry of
/// {port, keys.vlan, keys.source_be}; verdict_decide() gives the verdict. A look-up that fails counts as "no entry".
#pragma once

#include <linux/types.h>

#define VERDICT_INLINE static inline __attribute__((always_inline))

/// Deepest byte that the rules read: Ethernet, one tag, an IPv4 header with all options, UDP, DHCP up to the client's
/// hardware address. A caller whose frame is not contiguous makes min(frame length, this) bytes contiguous first.
#define VERDICT_HEADER_BYTES (14 + 4 + 60 + 8 + 34)

/// A set of permissions: bit 0 IPv4, bit 1 IPv6, bit 2 everything, without a look at the frame.
enum verdict_mode {
  VERDICT_MODE_NONE = 0,
  VERDICT_MODE_IPV4_ALL = 1,
  VERDICT_MODE_IPV6_ALL = 2,
  VERDICT_MODE_IPV4_AND_IPV6 = 3,
  VERDICT_MODE_ALL = 7
};
#define VERDICT_PERMITS_IPV4(mode) (((mode)&1) != 0)
#define VERDICT_PERMITS_IPV6(mode) (((mode)&2) != 0)
#define VERDICT_PERMITS_EVERYTHING(mode) (((mode)&4) != 0)

/// Why a frame passes or drops; also the counter it is counted in.
enum verdict_reason {
  VERDICT_NOT_ENABLED,     ///< pass, and not counted
  VERDICT_ALLOW_ALL,       ///< pass
  VERDICT_MALFORMED,       ///< drop
  VERDICT_BAD_SOURCE_MAC,  ///< drop
  VERDICT_VLAN,            ///< drop
  VERDICT_MARTIAN,         ///< drop
  VERDICT_IPV4_ALL,        ///< pass
  VERDICT_ENTRY,           ///< pass
  VERDICT_MAC_MISMATCH,    ///< drop
  VERDICT_DHCP,            ///< pass
  VERDICT_DHCP_MAC,        ///< drop
  VERDICT_NO_ENTRY,        ///< drop
  VERDICT_ARP_MAC,         ///< drop
  VERDICT_ARP,             ///< drop
  VERDICT_ARP_PROBE,       ///< pass
  VERDICT_IPV6_ALL,        ///< pass
  VERDICT_IPV6,            ///< drop
  VERDICT_ENCAPSULATED,    ///< drop
  VERDICT_NON_IP,          ///< pass
  VERDICT_REASONS
};

/// The row of the verdict table that decided, in its order.
enum verdict_row {
  VERDICT_ROW_NOT_ENABLED,
  VERDICT_ROW_ALLOW_ALL,
  VERDICT_ROW_MALFORMED,
  VERDICT_ROW_SOURCE_MAC,
  VERDICT_ROW_VLAN,
  VERDICT_ROW_MARTIAN,
  VERDICT_ROW_IPV4_ALL,
  VERDICT_ROW_DHCP,
  VERDICT_ROW_DHCP_MAC,
  VERDICT_ROW_ENTRY,
  VERDICT_ROW_MAC_MISMATCH,
  VERDICT_ROW_NO_ENTRY,
  VERDICT_ROW_ARP_MAC,
  VERDICT_ROW_ARP,
  VERDICT_ROW_RARP,
  VERDICT_ROW_IPV6_ALL,
  VERDICT_ROW_IPV6,
  VERDICT_ROW_ENCAPSULATED,
  VERDICT_ROW_NON_IP,
  VERDICT_ROWS
};

/// A MAC address as it lies in the frame, in words that are compared whole.
struct verdict_mac {
  __u16 word[3];
};

/// An allowed source. Also the value of the kernel's entry map; `generation` is the manager's, for its sweep.
struct verdict_entry {
  struct verdict_mac mac;
  __u8 has_mac;
  __u8 generation;
};

struct verdict_port {
  __u8 enabled;
  __u8 mode;     ///< enum verdict_mode
  __u8 monitor;  ///< judged and counted, nothing dropped
};

/// One received frame. `data` is the destination MAC; `data_end` is past the last byte at hand, which are at least
/// min(length, VERDICT_HEADER_BYTES). A tag that the receiver took out of the bytes is given in the tag fields.
struct verdict_frame {
  const __u8* data;
  const __u8* data_end;
  __u32 length;
  __u8 tag_present;
  __u16 tag_tci;       ///< host order
  __u16 tag_protocol;  ///< host order
  __u8 aggregated;     ///< the kernel made one large TCP packet of several; one above 65,535 bytes has total length 0
  __u8 tagged_length_hidden;  ///< the receiver keeps no 802.3 length after a tag: such frames count as malformed
};

enum verdict_kind {
  VERDICT_KIND_OTHER,
  VERDICT_KIND_IPV4,
  VERDICT_KIND_ARP,        ///< Ethernet and IPv4
  VERDICT_KIND_ARP_OTHER,  ///< other hardware or protocol types: its sender cannot be judged
  VERDICT_KIND_RARP,
  VERDICT_KIND_IPV6,
  VERDICT_KIND_ENCAPSULATED
};

/// What was read from a frame. `fault` is the first of malformed, bad-source-mac and vlan that applies, or 0; the other
/// members hold what was read up to that point, else zero.
struct verdict_keys {
  struct verdict_mac mac;
  __u16 vlan;
  __u16 ethertype;   ///< host order, after at most one tag
  __be32 source_be;  ///< IPv4 source, or the sender of an ARP packet
  __u8 fault;        ///< enum verdict_reason
  __u8 kind;         ///< enum verdict_kind
  __u8 martian;      ///< the source is of no host; a DHCP client's 0.0.0.0 and that of an ARP probe are not meant
  __u8 dhcp;         ///< IPv4: the request of a DHCP client that has no address yet
  __u8 dhcp_mac_differs;
  __u8 arp_request;
  __u8 arp_mac_differs;
};

struct verdict {
  __u8 drop;    ///< the judgement; a port in monitor mode lets the frame pass nevertheless
  __u8 reason;  ///< enum verdict_reason
  __u8 row;     ///< enum verdict_row
};

#ifdef __bpf__
// Frames start on an even address, and the kernel checks where 32 bits must be aligned.
VERDICT_INLINE __u16 verdict_load16(const __u8* at) { return *(const __u16*)at; }
VERDICT_INLINE __u32 verdict_load32(const __u8* at) { return *(const __u32*)at; }
#else
VERDICT_INLINE __u16 verdict_load16(const __u8* at) {
  __u16 value;
  __builtin_memcpy(&value, at, sizeof value);
  return value;
}
VERDICT_INLINE __u32 verdict_load32(const __u8* at) {
  __u32 value;
  __builtin_memcpy(&value, at, sizeof value);
  return value;
}
#endif

VERDICT_INLINE __u16 verdict_be16(const __u8* at) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return __builtin_bswap16(verdict_load16(at));
#else
  return verdict_load16(at);
#endif
}

VERDICT_INLINE int verdict_same_mac(const struct verdict_mac* a, const struct verdict_mac* b) {
  return a->word[0] == b->word[0] && a->word[1] == b->word[1] && a->word[2] == b->word[2];
}

VERDICT_INLINE int verdict_bad_mac(const __u8* mac) {
  return (mac[0] & 1) != 0 || (verdict_load16(mac) | verdict_load16(mac + 2) | verdict_load16(mac + 4)) == 0;
}

VERDICT_INLINE int verdict_is_tag(__u16 type) { return type == 0x8100 || type == 0x88a8; }

/// Types whose payload can hold an IP source that is not looked at here. docs/verdicts.md gives the reason for each,
/// and for those that are left out.
VERDICT_INLINE int verdict_is_encapsulation(__u16 type) {
  if (type >= 0x1001 && type <= 0x100f) return 1;  // trailer encapsulation
  switch (type) {
    case 0x08ff:  // AX.25
    case 0x22e9:  // congestion notification tag
    case 0x22eb:  // mirrored frames, type III
    case 0x22f1:  // robust header compression
    case 0x22f3:  // TRILL
    case 0x4305:  // mesh frames of layer 2
    case 0x6558:  // transparent Ethernet bridging
    case 0x6559:  // frame relay
    case 0x8180:  // HIPPI
    case 0x876b:  // compressed TCP/IP
    case 0x880b:  // PPP
    case 0x883e:  // redirected IP packets
    case 0x8847:  // MPLS
    case 0x8848:  // MPLS with an upstream label
    case 0x884c:  // ATM, multi-protocol
    case 0x8863:  // PPPoE discovery
    case 0x8864:  // PPPoE session
    case 0x886c:  // link control with a type of its own after it
    case 0x8870:  // LLC in frames above 1,500 bytes
    case 0x8884:  // ATM in frames
    case 0x88b7:  // OUI-extended
    case 0x88be:  // mirrored frames, type II
    case 0x88e5:  // MACsec
    case 0x88e7:  // 802.1ah
    case 0x8903:  // data-center fabric tag
    case 0x8909:  // security group tag
    case 0x8926:  // VN-tag
    case 0x892f:  // HSR
    case 0x893b:  // TRILL, fine-grained label
    case 0x893f:  // E-TAG
    case 0x8946:  // TRILL channel
    case 0x8947:  // GeoNetworking
    case 0x894f:  // NSH
    case 0x9100:  // stacked tags that are not standardized
    case 0x9200:
    case 0x9300:
    case 0xa0ed:  // 6LoWPAN
    case 0xdada:  // tags between a host and its switch chip
    case 0xdadb:
    case 0xdadc:
    case 0xf1c1:  // R-TAG
      return 1;
    default:
      return 0;
  }
}

/// True for LLC addresses under which an IP or ARP packet can follow: 0xaa SNAP, 0x06 IP, 0x98 ARP. The lowest bit is
/// not part of an address.
VERDICT_INLINE int verdict_is_ip_over_llc(__u8 address) {
  const __u8 sap = address & 0xfe;
  return sap == 0xaa || sap == 0x06 || sap == 0x98;
}

/// True for the first byte of addresses that no host has: 0/8, 127/8, 224/4 and 240/4.
VERDICT_INLINE int verdict_is_martian(__u8 first) { return first == 0 || first == 127 || first >= 224; }

/// DHCP at `udp` from 0.0.0.0, whose headers are all there: the request of a client on this link, not of a relay.
VERDICT_INLINE void verdict_parse_dhcp(const __u8* udp, struct verdict_keys* keys) {
  const __u8* dhcp = udp + 8;
  if (verdict_be16(udp) != 68 || verdict_be16(udp + 2) != 67) return;
  // A request; a hardware address of six bytes; no relay's address.
  if (dhcp[0] != 1 || dhcp[2] != 6 || (verdict_load16(dhcp + 24) | verdict_load16(dhcp + 26)) != 0) return;
  struct verdict_mac client;
  client.word[0] = verdict_load16(dhcp + 28);
  client.word[1] = verdict_load16(dhcp + 30);
  client.word[2] = verdict_load16(dhcp + 32);
  keys->dhcp = 1;
  keys->dhcp_mac_differs = !verdict_same_mac(&client, &keys->mac);
  keys->martian = 0;
}

/// IPv4 at `at`, of which `left` bytes are in the frame. False: malformed.
VERDICT_INLINE int verdict_parse_ipv4(const struct verdict_frame* frame, const __u8* at, __u32 left,
                                      struct verdict_keys* keys) {
  if (at + 20 > frame->data_end) return 0;
  const __u32 header = (at[0] & 0x0fu) << 2;
  __u32 total = verdict_be16(at + 2);
  if (total == 0 && frame->aggregated && at[9] == 6) total = left;
  if (at[0] >> 4 != 4 || header < 20 || total < header || total > left) return 0;
  keys->kind = VERDICT_KIND_IPV4;
  keys->source_be = verdict_load32(at + 12);
  keys->martian = verdict_is_martian(at[12]) != 0;
  if (keys->source_be != 0 || verdict_load32(at + 16) != 0xffffffffu) return 1;
  // More-fragments and offset; an unfragmented UDP packet whose headers are all there.
  if ((verdict_be16(at + 6) & 0x3fff) != 0 || at[9] != 17 || total < header + 8 + 34) return 1;
  const __u8* udp = at + header;
  if (udp + 8 + 34 > frame->data_end) return 1;
  verdict_parse_dhcp(udp, keys);
  return 1;
}

/// ARP at `at`. False: malformed.
VERDICT_INLINE int verdict_parse_arp(const struct verdict_frame* frame, const __u8* at, struct verdict_keys* keys) {
  if (at + 28 > frame->data_end) return 0;
  if (at[4] != 6 || at[5] != 4) return 0;
  if (verdict_be16(at) != 1 || verdict_be16(at + 2) != 0x0800) {
    keys->kind = VERDICT_KIND_ARP_OTHER;
    return 1;
  }
  struct verdict_mac sender;
  sender.word[0] = verdict_load16(at + 8);
  sender.word[1] = verdict_load16(at + 10);
  sender.word[2] = verdict_load16(at + 12);
  keys->kind = VERDICT_KIND_ARP;
  keys->arp_request = verdict_be16(at + 6) == 1;
  keys->arp_mac_differs = !verdict_same_mac(&sender, &keys->mac);
  keys->source_be = verdict_load32(at + 14);
  keys->martian = keys->source_be != 0 && verdict_is_martian(at[14]);
  return 1;
}

/// A length field instead of a type: LLC at `at`, of which `left` bytes are in the frame. False: malformed.
VERDICT_INLINE int verdict_parse_llc(const struct verdict_frame* frame, const __u8* at, __u16 length, __u32 left,
                                     struct verdict_keys* keys) {
  if (length > 1500 || length > left || length < 3 || at + 3 > frame->data_end) return 0;
  const int carries_ip = verdict_is_ip_over_llc(at[0]) || verdict_is_ip_over_llc(at[1]);
  keys->kind = carries_ip ? VERDICT_KIND_ENCAPSULATED : VERDICT_KIND_OTHER;
  return 1;
}

/// What follows Ethernet and at most one tag. False: malformed.
VERDICT_INLINE int verdict_parse_payload(const struct verdict_frame* frame, int tagged, __u16 type, __u32 offset,
                                         struct verdict_keys* keys) {
  const __u8* at = frame->data + offset;
  const __u32 left = frame->length - offset;
  if (type == 0x0800) return verdict_parse_ipv4(frame, at, left, keys);
  if (type == 0x0806) return verdict_parse_arp(frame, at, keys);
  if (type < 0x0600) {
    if (tagged && frame->tagged_length_hidden) return 0;
    return verdict_parse_llc(frame, at, type, left, keys);
  }
  if (type == 0x86dd)
    keys->kind = VERDICT_KIND_IPV6;
  else if (type == 0x8035)
    keys->kind = VERDICT_KIND_RARP;
  else if (verdict_is_encapsulation(type))
    keys->kind = VERDICT_KIND_ENCAPSULATED;
  else
    keys->kind = VERDICT_KIND_OTHER;
  return 1;
}

/// The first step of verdict_parse(), for the most frequent frames: IPv4 from an address that a host can have, without
/// options and without a tag in the bytes. False for every other frame, of which nothing is known then. Short and
/// without branches off the common path, for a caller to whom its cost matters.
VERDICT_INLINE int verdict_parse_plain(const struct verdict_frame* frame, struct verdict_keys* keys) {
  const __u8* data = frame->data;
  const __u8* at = data + 14;
  if (at + 20 > frame->data_end || verdict_be16(data + 12) != 0x0800 || at[0] != 0x45) return 0;
  const __u16 vid = frame->tag_present ? frame->tag_tci & 0x0fff : 0;
  if (frame->tag_present && (frame->tag_protocol != 0x8100 || vid == 0x0fff)) return 0;
  const __u32 total = verdict_be16(at + 2);
  const __be32 source_be = verdict_load32(at + 12);
  if (total < 20 || total > frame->length - 14 || verdict_is_martian(at[12]) || verdict_bad_mac(data + 6)) return 0;
  __builtin_memset(keys, 0, sizeof *keys);
  keys->mac.word[0] = verdict_load16(data + 6);
  keys->mac.word[1] = verdict_load16(data + 8);
  keys->mac.word[2] = verdict_load16(data + 10);
  keys->vlan = vid;
  keys->ethertype = 0x0800;
  keys->source_be = source_be;
  keys->kind = VERDICT_KIND_IPV4;
  return 1;
}

/// Reads `frame` into `keys`, whatever the port allows.
VERDICT_INLINE void verdict_parse(const struct verdict_frame* frame, struct verdict_keys* keys) {
  if (verdict_parse_plain(frame, keys)) return;
  const __u8* data = frame->data;
  __builtin_memset(keys, 0, sizeof *keys);
  keys->fault = VERDICT_MALFORMED;
  if (data + 14 > frame->data_end) return;
  keys->mac.word[0] = verdict_load16(data + 6);
  keys->mac.word[1] = verdict_load16(data + 8);
  keys->mac.word[2] = verdict_load16(data + 10);

  __u16 type = verdict_be16(data + 12);
  __u32 offset = 14;
  int tagged = frame->tag_present != 0;
  __u16 tci = frame->tag_tci, protocol = frame->tag_protocol;
  if (!tagged && verdict_is_tag(type)) {
    if (data + 18 > frame->data_end) return;
    tagged = 1;
    protocol = type;
    tci = verdict_be16(data + 14);
    type = verdict_be16(data + 16);
    offset = 18;
  }
  keys->ethertype = type;
  const __u16 vid = tci & 0x0fff;
  int bad_vlan = 0;
  if (tagged) {
    keys->vlan = vid;
    bad_vlan = protocol != 0x8100 || vid == 0x0fff;
  }
  if (tagged && verdict_is_tag(type)) {
    // A second tag: the verdict is made, so what follows its header is not looked at.
    if (data + offset + 4 > frame->data_end) return;
    bad_vlan = 1;
  } else if (!verdict_parse_payload(frame, tagged, type, offset, keys)) {
    return;
  }

  if (verdict_bad_mac(data + 6))
    keys->fault = VERDICT_BAD_SOURCE_MAC;
  else
    keys->fault = bad_vlan ? VERDICT_VLAN : 0;
}

/// True when the frame need not be read: verdict_decide() may be given zeroed keys.
VERDICT_INLINE int verdict_is_settled(const struct verdict_port* port) {
  return !port->enabled || VERDICT_PERMITS_EVERYTHING(port->mode);
}

/// True when the verdict depends on the entry of {port, keys->vlan, keys->source_be}.
VERDICT_INLINE int verdict_wants_entry(const struct verdict_port* port, const struct verdict_keys* keys) {
  if (verdict_is_settled(port) || VERDICT_PERMITS_IPV4(port->mode) || keys->fault != 0 || keys->martian) return 0;
  if (keys->kind == VERDICT_KIND_IPV4) return !keys->dhcp;
  return keys->kind == VERDICT_KIND_ARP && !keys->arp_mac_differs && keys->source_be != 0;
}

VERDICT_INLINE struct verdict verdict_make(int drop, int reason, int row) {
  struct verdict result;
  result.drop = (__u8)drop;
  result.reason = (__u8)reason;
  result.row = (__u8)row;
  return result;
}

VERDICT_INLINE struct verdict verdict_decide_ipv4(const struct verdict_port* port, const struct verdict_keys* keys,
                                                  const struct verdict_entry* entry) {
  if (keys->martian) return verdict_make(1, VERDICT_MARTIAN, VERDICT_ROW_MARTIAN);
  if (VERDICT_PERMITS_IPV4(port->mode)) return verdict_make(0, VERDICT_IPV4_ALL, VERDICT_ROW_IPV4_ALL);
  if (keys->dhcp_mac_differs) return verdict_make(1, VERDICT_DHCP_MAC, VERDICT_ROW_DHCP_MAC);
  if (keys->dhcp) return verdict_make(0, VERDICT_DHCP, VERDICT_ROW_DHCP);
  if (entry) {
    if (!entry->has_mac || verdict_same_mac(&entry->mac, &keys->mac))
      return verdict_make(0, VERDICT_ENTRY, VERDICT_ROW_ENTRY);
    return verdict_make(1, VERDICT_MAC_MISMATCH, VERDICT_ROW_MAC_MISMATCH);
  }
  return verdict_make(1, VERDICT_NO_ENTRY, VERDICT_ROW_NO_ENTRY);
}

VERDICT_INLINE struct verdict verdict_decide_arp(const struct verdict_port* port, const struct verdict_keys* keys,
                                                 const struct verdict_entry* entry) {
  if (keys->arp_mac_differs) return verdict_make(1, VERDICT_ARP_MAC, VERDICT_ROW_ARP_MAC);
  if (keys->source_be == 0) {
    // An address probe; no host answers for the unspecified address, whatever is allowed.
    if (keys->arp_request) return verdict_make(0, VERDICT_ARP_PROBE, VERDICT_ROW_ARP);
    return verdict_make(1, VERDICT_ARP, VERDICT_ROW_ARP);
  }
  if (keys->martian) return verdict_make(1, VERDICT_ARP, VERDICT_ROW_ARP);
  if (VERDICT_PERMITS_IPV4(port->mode)) return verdict_make(0, VERDICT_IPV4_ALL, VERDICT_ROW_ARP);
  if (entry && (!entry->has_mac || verdict_same_mac(&entry->mac, &keys->mac)))
    return verdict_make(0, VERDICT_ENTRY, VERDICT_ROW_ARP);
  return verdict_make(1, VERDICT_ARP, VERDICT_ROW_ARP);
}

/// True when keys->source_be was read from the frame, also when it is 0.0.0.0.
VERDICT_INLINE int verdict_has_source(const struct verdict_keys* keys) {
  return keys->kind == VERDICT_KIND_IPV4 || keys->kind == VERDICT_KIND_ARP;
}

/// The verdict. `entry`: what the look-up gave, null for none or when none was wanted.
VERDICT_INLINE struct verdict verdict_decide(const struct verdict_port* port, const struct verdict_keys* keys,
                                             const struct verdict_entry* entry) {
  if (!port->enabled) return verdict_make(0, VERDICT_NOT_ENABLED, VERDICT_ROW_NOT_ENABLED);
  if (VERDICT_PERMITS_EVERYTHING(port->mode)) return verdict_make(0, VERDICT_ALLOW_ALL, VERDICT_ROW_ALLOW_ALL);
  if (keys->fault == VERDICT_MALFORMED) return verdict_make(1, VERDICT_MALFORMED, VERDICT_ROW_MALFORMED);
  if (keys->fault == VERDICT_BAD_SOURCE_MAC) return verdict_make(1, VERDICT_BAD_SOURCE_MAC, VERDICT_ROW_SOURCE_MAC);
  if (keys->fault == VERDICT_VLAN) return verdict_make(1, VERDICT_VLAN, VERDICT_ROW_VLAN);
  switch (keys->kind) {
    case VERDICT_KIND_IPV4:
      return verdict_decide_ipv4(port, keys, entry);
    case VERDICT_KIND_ARP:
      return verdict_decide_arp(port, keys, entry);
    case VERDICT_KIND_ARP_OTHER:
      return verdict_make(1, VERDICT_ARP, VERDICT_ROW_ARP);
    case VERDICT_KIND_RARP:
      return verdict_make(1, VERDICT_ARP, VERDICT_ROW_RARP);
    case VERDICT_KIND_IPV6:
      if (VERDICT_PERMITS_IPV6(port->mode)) return verdict_make(0, VERDICT_IPV6_ALL, VERDICT_ROW_IPV6_ALL);
      return verdict_make(1, VERDICT_IPV6, VERDICT_ROW_IPV6);
    case VERDICT_KIND_ENCAPSULATED:
      return verdict_make(1, VERDICT_ENCAPSULATED, VERDICT_ROW_ENCAPSULATED);
    default:
      return verdict_make(0, VERDICT_NON_IP, VERDICT_ROW_NON_IP);
  }
}

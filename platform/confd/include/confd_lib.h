/// @file confd_lib.h
/// ConfD client library: values, keypaths, results and last-error reporting, shared by the CDB reads
/// (confd_cdb.h) and the data-provider side (confd_dp.h). One thread per process uses the library.
#pragma once

#include <arpa/inet.h>
#include <assert.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#ifdef NDEBUG
#error "the tag checks of the accessor macros are behaviour: NDEBUG must not be defined"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// Results of every call that returns `int`. A failing call leaves `confd_errno` and `confd_lasterr()` set.
#define CONFD_OK 0
#define CONFD_ERR (-1)
#define CONFD_EOF (-2) /**< the connection to the server, or the store, is gone */
#define CONFD_DELAYED_RESPONSE 2

/// Values of `confd_errno` after a failed call.
enum confd_errno_value {
  CONFD_ERR_NOEXISTS = 1,   /**< the path names an instance that does not exist */
  CONFD_ERR_BADPATH = 2,    /**< the path is malformed or names no node of the data model */
  CONFD_ERR_BADTYPE = 3,    /**< the node has another type than the one asked for */
  CONFD_ERR_BADSTATE = 4,   /**< the call does not fit the state of the socket or context */
  CONFD_ERR_PROTOUSAGE = 5, /**< an argument is out of range, or a path format lacks an argument */
  CONFD_ERR_TIMEOUT = 6,    /**< the server did not answer within the session's time-out */
  CONFD_ERR_OS = 7,         /**< a system call failed; the text carries its error */
  CONFD_ERR_EXTERNAL = 8,   /**< the server refused the request; the text says why */
  CONFD_ERR_NOTUNIQUE = 9   /**< a buffer is too small for the value */
};

extern int confd_errno;

/// The text of the last failed call, "" before the first one. Owned by the library, valid until its next call.
const char* confd_lasterr(void);

enum confd_vtype {
  C_NOEXISTS = 0, /**< end of a key list; no value */
  C_XMLTAG = 1,   /**< a node name; the value of an existing type empty leaf too */
  C_STR = 2,      /**< NUL-terminated string, not owned */
  C_BUF = 3,      /**< counted string; NUL-terminated one byte past its size */
  C_INT8 = 4,
  C_INT16 = 5,
  C_INT32 = 6,
  C_INT64 = 7,
  C_UINT8 = 8,
  C_UINT16 = 9,
  C_UINT32 = 10,
  C_UINT64 = 11,
  C_BOOL = 12,
  C_ENUM_VALUE = 13, /**< the enumeration's number */
  C_BINARY = 14,     /**< counted bytes */
  C_IPV4 = 15,       /**< struct in_addr, network order */
  C_IPV6 = 16,       /**< struct in6_addr, network order */
  C_DECIMAL64 = 17   /**< value * 10^fraction_digits */
};

struct xml_tag {
  uint32_t tag; /**< hash of the node's name */
  uint32_t ns;  /**< hash of its namespace */
};

typedef struct confd_buf {
  unsigned int size;
  unsigned char* ptr;
} confd_buf_t;

typedef struct confd_buf_const {
  unsigned int size;
  const unsigned char* ptr;
} confd_buf_const_t;

struct confd_decimal64 {
  int64_t value;
  uint8_t fraction_digits;
};

typedef struct confd_value {
  enum confd_vtype type;
  union {
    struct xml_tag xmltag;
    const char* s;
    confd_buf_t buf;
    confd_buf_const_t c_buf;
    int8_t i8;
    int16_t i16;
    int32_t i32;
    int64_t i64;
    uint8_t u8;
    uint16_t u16;
    uint32_t u32;
    uint64_t u64;
    int boolean;
    int32_t enumvalue;
    struct in_addr ip;
    struct in6_addr ip6;
    struct confd_decimal64 d64;
  } val;
} confd_value_t;

typedef struct confd_tag_value {
  struct xml_tag tag;
  confd_value_t v;
} confd_tag_value_t;

#define MAXDEPTH 20 /**< most elements of a keypath */
#define MAXKEYLEN 9 /**< most keys of a list instance, and the C_NOEXISTS that ends them */

/// `v[0]` is the deepest element, `v[len-1]` the topmost. An element is a tag (`v[i][0]` is C_XMLTAG) or the keys of
/// a list instance (`v[i][0..k-1]`, then C_NOEXISTS).
typedef struct confd_hkeypath {
  confd_value_t v[MAXDEPTH][MAXKEYLEN];
  int len;
} confd_hkeypath_t;

/* Each accessor asserts on the tag, with the argument as the caller wrote it in the assertion's text. */
#define CONFD_GET_XMLTAG(x) (assert((x)->type == C_XMLTAG), (x)->val.xmltag.tag)
#define CONFD_GET_XMLTAG_NS(x) (assert((x)->type == C_XMLTAG), (x)->val.xmltag.ns)
#define CONFD_GET_CSTR(x) (assert((x)->type == C_STR), (x)->val.s)
#define CONFD_GET_BUFPTR(x) (assert((x)->type == C_BUF), (x)->val.buf.ptr)
#define CONFD_GET_BUFSIZE(x) (assert((x)->type == C_BUF), (x)->val.buf.size)
#define CONFD_GET_INT8(x) (assert((x)->type == C_INT8), (x)->val.i8)
#define CONFD_GET_INT16(x) (assert((x)->type == C_INT16), (x)->val.i16)
#define CONFD_GET_INT32(x) (assert((x)->type == C_INT32), (x)->val.i32)
#define CONFD_GET_INT64(x) (assert((x)->type == C_INT64), (x)->val.i64)
#define CONFD_GET_UINT8(x) (assert((x)->type == C_UINT8), (x)->val.u8)
#define CONFD_GET_UINT16(x) (assert((x)->type == C_UINT16), (x)->val.u16)
#define CONFD_GET_UINT32(x) (assert((x)->type == C_UINT32), (x)->val.u32)
#define CONFD_GET_UINT64(x) (assert((x)->type == C_UINT64), (x)->val.u64)
#define CONFD_GET_BOOL(x) (assert((x)->type == C_BOOL), (x)->val.boolean)
#define CONFD_GET_ENUM_VALUE(x) (assert((x)->type == C_ENUM_VALUE), (x)->val.enumvalue)
#define CONFD_GET_BINARY_PTR(x) (assert((x)->type == C_BINARY), (x)->val.buf.ptr)
#define CONFD_GET_BINARY_SIZE(x) (assert((x)->type == C_BINARY), (x)->val.buf.size)
#define CONFD_GET_IPV4(x) (assert((x)->type == C_IPV4), (x)->val.ip)
#define CONFD_GET_IPV6(x) (assert((x)->type == C_IPV6), (x)->val.ip6)
#define CONFD_GET_DECIMAL64(x) (assert((x)->type == C_DECIMAL64), (x)->val.d64)

/* Setters: `x` points at the value. Strings and bytes are not copied: the caller keeps them alive. */
#define CONFD_SET_NOEXISTS(x) ((x)->type = C_NOEXISTS)
#define CONFD_SET_XMLTAG(x, tag_, ns_) ((x)->type = C_XMLTAG, (x)->val.xmltag.tag = (tag_), (x)->val.xmltag.ns = (ns_))
#define CONFD_SET_STR(x, s_) ((x)->type = C_STR, (x)->val.s = (s_))
#define CONFD_SET_BUF(x, ptr_, size_) ((x)->type = C_BUF, (x)->val.buf.ptr = (ptr_), (x)->val.buf.size = (size_))
#define CONFD_SET_CBUF(x, ptr_, size_) ((x)->type = C_BUF, (x)->val.c_buf.ptr = (ptr_), (x)->val.c_buf.size = (size_))
#define CONFD_SET_INT8(x, i) ((x)->type = C_INT8, (x)->val.i8 = (i))
#define CONFD_SET_INT16(x, i) ((x)->type = C_INT16, (x)->val.i16 = (i))
#define CONFD_SET_INT32(x, i) ((x)->type = C_INT32, (x)->val.i32 = (i))
#define CONFD_SET_INT64(x, i) ((x)->type = C_INT64, (x)->val.i64 = (i))
#define CONFD_SET_UINT8(x, i) ((x)->type = C_UINT8, (x)->val.u8 = (i))
#define CONFD_SET_UINT16(x, i) ((x)->type = C_UINT16, (x)->val.u16 = (i))
#define CONFD_SET_UINT32(x, i) ((x)->type = C_UINT32, (x)->val.u32 = (i))
#define CONFD_SET_UINT64(x, i) ((x)->type = C_UINT64, (x)->val.u64 = (i))
#define CONFD_SET_BOOL(x, i) ((x)->type = C_BOOL, (x)->val.boolean = (i))
#define CONFD_SET_ENUM_VALUE(x, i) ((x)->type = C_ENUM_VALUE, (x)->val.enumvalue = (i))
#define CONFD_SET_BINARY(x, ptr_, size_) \
  ((x)->type = C_BINARY, (x)->val.c_buf.ptr = (ptr_), (x)->val.c_buf.size = (size_))
#define CONFD_SET_IPV4(x, i) ((x)->type = C_IPV4, (x)->val.ip = (i))
#define CONFD_SET_IPV6(x, i) ((x)->type = C_IPV6, (x)->val.ip6 = (i))
#define CONFD_SET_DECIMAL64(x, i) ((x)->type = C_DECIMAL64, (x)->val.d64 = (i))
#define CONFD_SET_TAG_XMLTAG(x, tag_, ns_) ((x)->tag.tag = (tag_), (x)->tag.ns = (ns_))

/// Writes the path as text, "/config/anti-ip-spoofing/interface{eth3}/allowed-ip/ipv4{10.0.0.1 100}": no quotes where
/// a key needs none; a key with a blank, brace, quote or backslash, or an empty one, is quoted and escaped so that the
/// text parses back to the same path. At most `size` bytes with the NUL; a longer text is cut.
/// Returns the length of the whole text without the NUL, or CONFD_ERR when `path` is not well formed.
int confd_pp_kpath(char* buf, int size, const confd_hkeypath_t* path);

/// Writes one value as text, with the same bounds and result as confd_pp_kpath().
int confd_pp_value(char* buf, int size, const confd_value_t* value);

/// Releases what a value read with cdb_get() owns and makes it C_NOEXISTS.
void confd_free_value(confd_value_t* value);

#ifdef __cplusplus
}
#endif

/// Number of arguments given to a path-taking macro, the format included (1 to 16). Handed to the library so that the
/// formatter never reads an argument that was not passed.
#define CONFD_NARGS(...) CONFD_NARGS_PICK(__VA_ARGS__, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define CONFD_NARGS_PICK(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, a16, n, ...) n

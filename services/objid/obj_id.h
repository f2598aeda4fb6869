// Object ids: a 64-bit number that stands for an object and proves stale once the object has gone.
//
// Ids are drawn from a domain. The domain and its tables lie in the memory that the given allocate
// function hands out, normally a window, and survive the process. The functions themselves are kept
// per process: they are given again with fib_obj_id_domain_reinit and none is ever read from the
// domain.
//
// An id carries its index, an instance (0 when allocated), a version and the user data (the
// object's type); fib_obj_id_decode takes it apart without looking at the domain's tables. Each
// index counts its versions up at every free and wraps at the version count, and freed indices are
// taken again in the order in which they were freed, so an old id is recognised until its index has
// been through all versions. No id is 0, and every id is below 0xFFFFFFFFFFFFFFFE.
//
// Allocation and free take bounded time and are one journal group each. Tables are allocated on
// demand and kept.
//
// Thread-safety. One writer per domain. Lookups and decoding need no lock and may run beside the
// writer in other threads and processes; an id that is freed meanwhile gives its object or a stale
// id.
//
// Results: 0; EINVAL for a NULL argument or a number out of range; ENOMEM when the allocate
// function gives NULL; or a code below. Each failure is also told to the debug error function, if
// one is known.
#ifndef MFWD6_SERVICES_OBJID_OBJ_ID_H
#define MFWD6_SERVICES_OBJID_OBJ_ID_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

#define FIB_OBJ_ID_STALE 0x44b02001U          // the id was given back
#define FIB_OBJ_ID_UNKNOWN 0x44b02002U        // well formed, but never given out
#define FIB_OBJ_ID_MALFORMED 0x44b02003U      // not an id of this domain's layout
#define FIB_OBJ_ID_NO_DOMAIN 0x44b02004U      // the pointer does not lead to a domain
#define FIB_OBJ_ID_FULL 0x44b02005U           // all ids of the domain are in use
#define FIB_OBJ_ID_NOT_CONNECTED 0x44b02006U  // needs memory, and this process gave no functions
#define FIB_OBJ_ID_SHAPE 0x44b02007U          // numbers given at reinit differ from the domain's

typedef struct fib_obj_id_domain fib_obj_id_domain_t;                // in the window
typedef struct fib_obj_id_params fib_obj_id_params_t;                // process memory
typedef struct fib_obj_id_domain_params fib_obj_id_domain_params_t;  // process memory

// Gives count * size bytes, 8-byte aligned, or NULL. Need not be zeroed.
typedef void *(*fib_obj_id_mem_alloc_fn)(size_t count, size_t size);
typedef void (*fib_obj_id_mem_free_fn)(void *block);

// One message, without a newline.
typedef void (*fib_obj_id_dbg_fn)(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Functions for the domain record itself. Freed with fib_obj_id_domain_params_free once the domain
// is built or connected.
MFWD6_EXPORT cerrno fib_obj_id_domain_params_init(fib_obj_id_domain_params_t **params,
                                                  fib_obj_id_mem_alloc_fn alloc,
                                                  fib_obj_id_mem_free_fn free_fn);
MFWD6_EXPORT cerrno fib_obj_id_domain_params_free(fib_obj_id_domain_params_t *params);

// Parameters of a domain, with nothing set. Freed with fib_obj_id_params_free once the domain is
// built or connected.
MFWD6_EXPORT cerrno fib_obj_id_params_init(fib_obj_id_params_t **params);
MFWD6_EXPORT cerrno fib_obj_id_params_free(fib_obj_id_params_t *params);

// Numbers; required by domain_init, optional for domain_reinit. Ids: 1 to 2^32. Entries of one
// table: a power of two, 16 to 65536, at most 2^20 tables. Instances, versions: 1 to 2^20. User
// data: 1 to 256. Together the four must fit in 62 bits of an id, each rounded up to a power of
// two.
MFWD6_EXPORT cerrno fib_obj_id_params_set_id_cnt(fib_obj_id_params_t *params, uint64_t count);
MFWD6_EXPORT cerrno fib_obj_id_params_set_id_table_size(fib_obj_id_params_t *params,
                                                        uint32_t entries);
MFWD6_EXPORT cerrno fib_obj_id_params_set_id_instance_cnt(fib_obj_id_params_t *params,
                                                          uint32_t count);
MFWD6_EXPORT cerrno fib_obj_id_params_set_id_version_cnt(fib_obj_id_params_t *params,
                                                         uint32_t count);
MFWD6_EXPORT cerrno fib_obj_id_params_set_id_userdata_cnt(fib_obj_id_params_t *params,
                                                          uint32_t count);

// Functions for the tables; those of the domain parameters serve where none are set.
MFWD6_EXPORT cerrno fib_obj_id_params_set_mem_alloc_fn(fib_obj_id_params_t *params,
                                                       fib_obj_id_mem_alloc_fn fn);
MFWD6_EXPORT cerrno fib_obj_id_params_set_mem_free_fn(fib_obj_id_params_t *params,
                                                      fib_obj_id_mem_free_fn fn);

// Debug and error output. Optional; NULL switches one off.
MFWD6_EXPORT cerrno fib_obj_id_params_set_dbg_fn(fib_obj_id_params_t *params, fib_obj_id_dbg_fn fn);
MFWD6_EXPORT cerrno fib_obj_id_params_set_dbg_err_fn(fib_obj_id_params_t *params,
                                                     fib_obj_id_dbg_fn fn);

// Builds a domain; *domain is its handle, valid in every process that maps the memory at the same
// address. On failure *domain is NULL and nothing stays allocated.
MFWD6_EXPORT cerrno fib_obj_id_domain_init(const fib_obj_id_domain_params_t *domain_params,
                                           const fib_obj_id_params_t *params,
                                           fib_obj_id_domain_t **domain);

// Gives the functions of this process to a domain that exists. Numbers that are set must be the
// domain's.
MFWD6_EXPORT cerrno fib_obj_id_domain_reinit(const fib_obj_id_domain_params_t *domain_params,
                                             const fib_obj_id_params_t *params,
                                             fib_obj_id_domain_t *domain);

// Frees a domain with its tables through the functions of this process and forgets these.
MFWD6_EXPORT cerrno fib_obj_id_domain_destroy(fib_obj_id_domain_t *domain);

// Takes an id for `object` with `userdata` as its type. On failure *id is not written.
MFWD6_EXPORT cerrno fib_obj_id_alloc(fib_obj_id_domain_t *domain, uint64_t *id, void *object,
                                     uint32_t userdata);

// Gives an id back. It is stale from then on, and so is every further try to give it back.
MFWD6_EXPORT cerrno fib_obj_id_free(fib_obj_id_domain_t *domain, uint64_t id);

// The object that the id stands for and, unless `userdata` is NULL, its type. On failure neither is
// written.
MFWD6_EXPORT cerrno fib_obj_id_get_object_from_id(const fib_obj_id_domain_t *domain, uint64_t id,
                                                  void **object, uint32_t *userdata);

// Takes an id apart; any output may be NULL. A stale id decodes as well as a live one: `live` tells
// them apart. Fails for a number that is no id of this domain's layout, with nothing written.
//   index     0 to the id count - 1
//   userdata  the type given to fib_obj_id_alloc
//   version   of the index, 0 to the version count - 1
//   instance  0
//   table     number of the table that the index lies in
//   entry     place in that table
//   live      1 while the id stands for an object, else 0
MFWD6_EXPORT cerrno fib_obj_id_decode(const fib_obj_id_domain_t *domain, uint64_t id,
                                      uint64_t *index, uint32_t *userdata, uint32_t *version,
                                      uint32_t *instance, uint32_t *table, uint32_t *entry,
                                      uint32_t *live);

// Number of ids in use.
MFWD6_EXPORT cerrno fib_obj_id_in_use(const fib_obj_id_domain_t *domain, uint64_t *count);

MFWD6_END_C

#endif

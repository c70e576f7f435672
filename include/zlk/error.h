/* The 32-bit status every call returns.
 *
 * Bits 31..28 origin: 0xA protocol, 0xB operation, 0xC input, 0xD connection, 0xE local system,
 * 0xF remote system. Bits 27..24 severity: 0 informational, 1 warning, 2 error, 3 unrecoverable.
 * Bits 15..0 the code number. A value whose severity bits are zero is not a failure. */
#ifndef ZLK_ERROR_H
#define ZLK_ERROR_H

#include <stdint.h>

#include "zlk/export.h"

ZLK_BEGIN_C

typedef uint32_t zlk_error_t;

#define ZLK_ERROR_ORIGIN(x) ((uint32_t)(x)&0xF0000000u)
#define ZLK_ERROR_SEVERITY(x) ((uint32_t)(x)&0x0F000000u)
/* Not a failure: success, and every informational value. */
#define ZLK_SUCCESS(x) (ZLK_ERROR_SEVERITY(x) == 0)
#define ZLK_FAILURE(x) (!ZLK_SUCCESS(x))

#define zlk_eo_system_remote ((uint32_t)0xF0000000u)
#define zlk_eo_system_local ((uint32_t)0xE0000000u)
#define zlk_eo_connection ((uint32_t)0xD0000000u)
#define zlk_eo_input ((uint32_t)0xC0000000u)
#define zlk_eo_operation ((uint32_t)0xB0000000u)
#define zlk_eo_protocol ((uint32_t)0xA0000000u)

#define zlk_es_unrecoverable ((uint32_t)0x03000000u)
#define zlk_es_error ((uint32_t)0x02000000u)
#define zlk_es_warning ((uint32_t)0x01000000u)
#define zlk_es_info ((uint32_t)0x00000000u)

#define zlk_e_ok                      ((zlk_error_t)0x00000000u)
#define zlk_e_uninitialized           ((zlk_error_t)0xC300FFFFu)
#define zlk_e_system_local            ((zlk_error_t)0xE3000001u)
#define zlk_e_system_remote           ((zlk_error_t)0xF3000001u)
#define zlk_e_internal_local          ((zlk_error_t)0xE3000002u)
#define zlk_e_internal_remote         ((zlk_error_t)0xF3000002u)
#define zlk_e_no_memory_local         ((zlk_error_t)0xE3000003u)
#define zlk_e_no_memory_remote        ((zlk_error_t)0xF3000003u)
#define zlk_e_invalid_protocol        ((zlk_error_t)0xA3000004u)
#define zlk_e_host_not_found          ((zlk_error_t)0xD2000005u)
#define zlk_e_alias_not_found         ((zlk_error_t)0xB1000008u)
#define zlk_e_alias_already_exists    ((zlk_error_t)0xB1000009u)
#define zlk_e_timeout                 ((zlk_error_t)0xD200000Au)
#define zlk_e_buffer_too_small        ((zlk_error_t)0xC100000Bu)
#define zlk_e_connection_refused      ((zlk_error_t)0xD300000Eu)
#define zlk_e_connection_reset        ((zlk_error_t)0xD200000Fu)
#define zlk_e_not_implemented         ((zlk_error_t)0xF3000011u)
#define zlk_e_unstable_cluster        ((zlk_error_t)0xD2000012u)
#define zlk_e_version_mismatch        ((zlk_error_t)0xA3000016u)
#define zlk_e_try_again               ((zlk_error_t)0xD2000017u)
#define zlk_e_invalid_argument        ((zlk_error_t)0xC2000018u)
#define zlk_e_out_of_bounds           ((zlk_error_t)0xC1000019u)
#define zlk_e_conflict                ((zlk_error_t)0xB200001Au)
#define zlk_e_not_connected           ((zlk_error_t)0xD200001Bu)
#define zlk_e_invalid_handle          ((zlk_error_t)0xC200001Cu)
#define zlk_e_reserved_alias          ((zlk_error_t)0xC200001Du)
#define zlk_e_unmatched_content       ((zlk_error_t)0xB000001Eu)
#define zlk_e_invalid_iterator        ((zlk_error_t)0xC200001Fu)
#define zlk_e_operation_skipped       ((zlk_error_t)0xB1000021u)
#define zlk_e_incompatible_type       ((zlk_error_t)0xB1000022u)
#define zlk_e_container_empty         ((zlk_error_t)0xB1000023u)
#define zlk_e_container_full          ((zlk_error_t)0xB1000024u)
#define zlk_e_element_not_found       ((zlk_error_t)0xB0000025u)
#define zlk_e_element_already_exists  ((zlk_error_t)0xB0000026u)
#define zlk_e_overflow                ((zlk_error_t)0xB1000027u)
#define zlk_e_underflow               ((zlk_error_t)0xB1000028u)
#define zlk_e_tag_already_set         ((zlk_error_t)0xB0000029u)
#define zlk_e_tag_not_set             ((zlk_error_t)0xB000002Au)
#define zlk_e_entry_too_large         ((zlk_error_t)0xC200002Bu)
#define zlk_e_transaction_failed      ((zlk_error_t)0xB200002Cu)
#define zlk_e_entry_locked            ((zlk_error_t)0xB200002Du)
#define zlk_e_operation_disabled      ((zlk_error_t)0xB200002Eu)
#define zlk_e_operation_not_permitted ((zlk_error_t)0xB200002Fu)
#define zlk_e_iterator_end            ((zlk_error_t)0xB0000030u)
#define zlk_e_invalid_reply           ((zlk_error_t)0xA3000031u)
#define zlk_e_ok_created              ((zlk_error_t)0xB0000032u)
#define zlk_e_no_space_left           ((zlk_error_t)0xF3000033u)
#define zlk_e_quota_exceeded          ((zlk_error_t)0xF3000034u)
#define zlk_e_alias_too_long          ((zlk_error_t)0xC2000035u)
#define zlk_e_clock_skew              ((zlk_error_t)0xF2000036u)
#define zlk_e_access_denied           ((zlk_error_t)0xB2000037u)
#define zlk_e_login_failed            ((zlk_error_t)0xF2000038u)
#define zlk_e_column_not_found        ((zlk_error_t)0xB1000039u)
#define zlk_e_query_too_complex       ((zlk_error_t)0xB2000040u)
#define zlk_e_invalid_crypto_key      ((zlk_error_t)0xC2000041u)
#define zlk_e_invalid_query           ((zlk_error_t)0xC2000042u)
#define zlk_e_invalid_regex           ((zlk_error_t)0xC2000043u)
#define zlk_e_unknown_user            ((zlk_error_t)0xC2000044u)
#define zlk_e_interrupted             ((zlk_error_t)0xF2000045u)
#define zlk_e_network_inbuf_too_small ((zlk_error_t)0xE2000046u)
#define zlk_e_network_error           ((zlk_error_t)0xD2000047u)

/* A constant, statically allocated text for any value; never fails. */
ZLK_API const char * zlk_error(zlk_error_t error) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_ERROR_H */

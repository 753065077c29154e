/* A platform of nothing: every interface answers with failure or emptiness. It shows that the daemon links with
   any library that has these names, and that platform/ is usable from C. */
#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdlib.h>

#include "bios_flash.h"
#include "cctrl.h"
#include "cmi.h"
#include "exec_cmd.h"
#include "image_files.h"
#include "modlock.h"
#include "mts.h"
#include "pfm.h"
#include "sdwrap.h"
#include "sprom.h"
#include "sysmgr.h"
#include "tlv.h"

#define UNUSED(x) (void)(x)
#define FAILURE (-1)

int32_t mts_bind(uint32_t k, int32_t s, const uint32_t o[6], const char *n)
{
    UNUSED(k), UNUSED(s), UNUSED(o), UNUSED(n);
    return FAILURE;
}
int32_t mts_recv(int32_t h, mts_message_t **m, const uint32_t o[10])
{
    UNUSED(h), UNUSED(m), UNUSED(o);
    errno = MTS_ERRNO_TIMED_OUT;
    return FAILURE;
}
uint32_t mts_opc_get(const mts_message_t *m)
{
    UNUSED(m);
    return 0;
}
void *mts_payload_get(mts_message_t *m)
{
    UNUSED(m);
    return NULL;
}
int32_t mts_saddr_get(const mts_message_t *m, mts_address_t *a)
{
    UNUSED(m), UNUSED(a);
    return FAILURE;
}
int32_t mts_send(int32_t h, uint32_t n, uint32_t s, uint32_t o, const void *p, uint32_t l, uint32_t a, uint32_t b,
                 uint32_t c)
{
    UNUSED(h), UNUSED(n), UNUSED(s), UNUSED(o), UNUSED(p), UNUSED(l), UNUSED(a), UNUSED(b), UNUSED(c);
    return FAILURE;
}
int32_t mts_respond_reject(int32_t h, uint32_t a, uint32_t b, mts_message_t *m, uint32_t c, uint32_t d)
{
    UNUSED(h), UNUSED(a), UNUSED(b), UNUSED(m), UNUSED(c), UNUSED(d);
    return FAILURE;
}
int32_t mts_drop(int32_t h, mts_message_t *m)
{
    UNUSED(h), UNUSED(m);
    return 0;
}
int32_t cmi_response(const void *p, uint32_t l, int32_t h, mts_message_t *m, uint32_t s)
{
    UNUSED(p), UNUSED(l), UNUSED(h), UNUSED(m), UNUSED(s);
    return FAILURE;
}
int32_t cmi_remote_req_resp(uint32_t o, uint32_t t, const void *q, void **r, uint32_t *l, const char *t1,
                            const char *t2, uint32_t s, uint32_t n, int32_t h, uint32_t w)
{
    UNUSED(o), UNUSED(t), UNUSED(q), UNUSED(l), UNUSED(t1), UNUSED(t2), UNUSED(s), UNUSED(n), UNUSED(h), UNUSED(w);
    *r = NULL;
    return FAILURE;
}
int32_t tlv_aligned_array_get_next_tlv(const void *a, uint16_t *t, uint16_t *l, const void **v, uint32_t g,
                                       uint32_t *c)
{
    UNUSED(a), UNUSED(t), UNUSED(l), UNUSED(v), UNUSED(g), UNUSED(c);
    return FAILURE;
}

syslog_facility_t *sdwrap_sys_facility;
int32_t sdwrap_dbg_init(int32_t h, const char *n, const char *t, uint32_t c, const char *const *s, uint32_t x,
                        uint32_t y, uint32_t z)
{
    UNUSED(h), UNUSED(n), UNUSED(t), UNUSED(c), UNUSED(s), UNUSED(x), UNUSED(y), UNUSED(z);
    return 0;
}
int32_t sdwrap_sys_init_helper(int32_t h, const char *n, const char *t, uint32_t f, uint32_t x, uint32_t y,
                               uint32_t z)
{
    UNUSED(h), UNUSED(n), UNUSED(t), UNUSED(f), UNUSED(x), UNUSED(y), UNUSED(z);
    return 0;
}
int32_t sdwrap_process_msg(int32_t h, mts_message_t *m)
{
    UNUSED(h), UNUSED(m);
    return 1;
}
int32_t sdwrap_hist_event_subtype_check(uint32_t t, uint32_t s)
{
    UNUSED(t), UNUSED(s);
    return 1;
}
int32_t sdwrap_hist_event(uint32_t t, uint32_t l, const char *x)
{
    UNUSED(t), UNUSED(l), UNUSED(x);
    return 0;
}
int32_t sdwrap_chk_int(uint32_t c, uint32_t x, uint32_t y, uint32_t z)
{
    UNUSED(c), UNUSED(x), UNUSED(y), UNUSED(z);
    return 0;
}
void buginf(const char *f, ...)
{
    UNUSED(f);
}
void vesk_syslog(uint32_t s, const char *f, const char *n, uint32_t m)
{
    UNUSED(s), UNUSED(f), UNUSED(n), UNUSED(m);
}

int32_t sysmgr_cli_supstate_get(int32_t h)
{
    UNUSED(h);
    return 0;
}
int32_t sysmgr_is_upgrade_restart(void)
{
    return 0;
}
int32_t sysmgr_cli_gsync_file(int32_t h, uint32_t k, const char *s, const char *d, uint32_t f)
{
    UNUSED(h), UNUSED(k), UNUSED(s), UNUSED(d), UNUSED(f);
    return FAILURE;
}
int32_t get_platform_info(platform_info_t *i)
{
    i->module_num = 1;
    return 0;
}
int32_t pfm_get_all_modules_in_chassis(int32_t h, pfm_module_record_t *r, uint32_t c)
{
    UNUSED(h), UNUSED(r), UNUSED(c);
    return FAILURE;
}
int32_t get_card_module_info(card_module_info_t *i)
{
    UNUSED(i);
    return FAILURE;
}
int32_t modlock_init(void)
{
    return FAILURE;
}
int32_t modlock_module_lock(uint32_t o, uint32_t n, const uint32_t r[4])
{
    UNUSED(o), UNUSED(n), UNUSED(r);
    return FAILURE;
}
int32_t modlock_module_unlock(uint32_t o, uint32_t n)
{
    UNUSED(o), UNUSED(n);
    return FAILURE;
}
int32_t cctrl_write_reg3(uint32_t r, uint32_t v)
{
    UNUSED(r), UNUSED(v);
    return FAILURE;
}
int32_t sprom_init_dev(uint32_t d, uint32_t o, uint32_t l, uint32_t r)
{
    UNUSED(d), UNUSED(o), UNUSED(l), UNUSED(r);
    return FAILURE;
}
int32_t sprom_cleanup_dev(uint32_t d, uint32_t o, uint32_t l, uint32_t r)
{
    UNUSED(d), UNUSED(o), UNUSED(l), UNUSED(r);
    return FAILURE;
}
int32_t sse_call(uint32_t c, void *r)
{
    UNUSED(c), UNUSED(r);
    return FAILURE;
}

#define FLASH_VERSION(name)                                                                                        \
    int32_t name(char *v, uint32_t s)                                                                              \
    {                                                                                                              \
        UNUSED(v), UNUSED(s);                                                                                      \
        return FAILURE;                                                                                            \
    }
FLASH_VERSION(get_bios_flash_version)
FLASH_VERSION(get_ibexpeak_bios_flash_version)
FLASH_VERSION(get_ibexpeak_qel_bios_flash_version)
FLASH_VERSION(get_ibexpeak_tarvik_a_bios_flash_version)
int32_t get_bios_src_version(const char *p, uint32_t o, char *v)
{
    UNUSED(p), UNUSED(o), UNUSED(v);
    return FAILURE;
}
int32_t get_ibexpeak_bios_src_version(const char *p, uint32_t o, char *v)
{
    return get_bios_src_version(p, o, v);
}
int32_t program_bios_flash(int32_t h, uint32_t n, uint32_t s, uint32_t o, const char *p, uint32_t a, void *g,
                           uint32_t t)
{
    UNUSED(h), UNUSED(n), UNUSED(s), UNUSED(o), UNUSED(p), UNUSED(a), UNUSED(g), UNUSED(t);
    return FAILURE;
}
uint32_t ibexpeak_bios_which_flash(const char *n, uint32_t v)
{
    UNUSED(n), UNUSED(v);
    return 0;
}
int32_t ibexpeak_bios_flash_erase(uint32_t s)
{
    UNUSED(s);
    return FAILURE;
}
int32_t ibexpeak_program_bios_command_ex(const char *p, uint32_t s, int32_t h, uint32_t n, uint32_t q, uint32_t o,
                                         uint32_t a, void *g)
{
    UNUSED(p), UNUSED(s), UNUSED(h), UNUSED(n), UNUSED(q), UNUSED(o), UNUSED(a), UNUSED(g);
    return FAILURE;
}

char *uri_map_targetfs_path_get(const char *u, char *b)
{
    UNUSED(u), UNUSED(b);
    return NULL;
}
const char *srg_sw_interim_ver_file_get(const char *p)
{
    UNUSED(p);
    return NULL;
}
int32_t srg_file_clone(void *d, const char *p, uint32_t l)
{
    UNUSED(d), UNUSED(p), UNUSED(l);
    return FAILURE;
}
int32_t exec_cmd_with_io_print(const char *c, FILE *i, FILE *o, FILE *e, uint32_t r)
{
    UNUSED(c), UNUSED(i), UNUSED(o), UNUSED(e), UNUSED(r);
    return FAILURE;
}
int32_t exec_cmd_with_files_print(const char *c, const char *i, const char *o, const char *e, uint32_t r)
{
    UNUSED(c), UNUSED(i), UNUSED(o), UNUSED(e), UNUSED(r);
    return FAILURE;
}

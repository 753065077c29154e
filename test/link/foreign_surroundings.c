/* Surroundings of a card on which nothing can be had: what the conformance kit then cannot test it skips. */
#include <stdlib.h>

#include "contract_surroundings.h"

#define UNUSED(x) (void)(x)
#define NOT_HERE "not on this card"

int contract_begin(int p)
{
    UNUSED(p);
    return 0;
}
void contract_end(void) {}
void contract_this_card(struct contract_card *c)
{
    c->module = 7;
    c->card_id = 90;
    c->is_supervisor = 1;
    c->supervisor_state = 1;
    c->is_upgrade_restart = 0;
    c->empty_module = 0;
}
uint32_t contract_sap(uint32_t n)
{
    return 4000 + n;
}
const char *contract_scratch_folder(void)
{
    return "/tmp";
}
const char *contract_start_on_other_card(char *const a[], int i, int o, pid_t *p)
{
    UNUSED(a), UNUSED(i), UNUSED(o), UNUSED(p);
    return NOT_HERE;
}
const char *contract_plain_flash(struct contract_flash *f)
{
    UNUSED(f);
    return "nothing may be destroyed on this card";
}
const char *contract_temporary_image(const char **p)
{
    UNUSED(p);
    return NOT_HERE;
}
const char *contract_chipset_flash(struct contract_flash *f)
{
    UNUSED(f);
    return "nothing may be destroyed on this card";
}
const char *contract_missing_flash(uint32_t *i)
{
    UNUSED(i);
    return NOT_HERE;
}
const char *contract_read_flash(uint32_t i, uint32_t o, void *b, uint32_t l)
{
    UNUSED(i), UNUSED(o), UNUSED(b), UNUSED(l);
    return NOT_HERE;
}
const char *contract_set_condition(enum contract_condition c, int o)
{
    UNUSED(c), UNUSED(o);
    return NOT_HERE;
}
const char *contract_standby_file(const char **p)
{
    UNUSED(p);
    return NOT_HERE;
}
const char *contract_read_standby_file(const char *p, void *b, size_t m, size_t *l)
{
    UNUSED(p), UNUSED(b), UNUSED(m), UNUSED(l);
    return NOT_HERE;
}
const char *contract_sprom(struct contract_known_sprom *s)
{
    UNUSED(s);
    return NOT_HERE;
}
const char *contract_register(uint32_t *n, uint32_t *v)
{
    UNUSED(n), UNUSED(v);
    return NOT_HERE;
}
const char *contract_read_register(uint32_t n, uint32_t *v)
{
    UNUSED(n), UNUSED(v);
    return NOT_HERE;
}
const char *contract_image_uri(const char **u, const char **p)
{
    UNUSED(u), UNUSED(p);
    return NOT_HERE;
}
const char *contract_loader_file(const char **p, const char **v)
{
    UNUSED(p), UNUSED(v);
    return NOT_HERE;
}
const char *contract_set_debug_category(uint32_t c, int o)
{
    UNUSED(c), UNUSED(o);
    return NOT_HERE;
}
const char *contract_read_record(enum contract_record r, char *t, size_t b)
{
    UNUSED(r), UNUSED(t), UNUSED(b);
    return NOT_HERE;
}

/* The smallest application, built out of tree against an installed copy:
 * initialize, name an error, refuse a bad URL, finalize. Exits 0 when every
 * answer is the expected one. */
#include <stdio.h>

#include <qel_hspace.h>

static void on_event(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data) { (void)hspace, (void)event, (void)event_data; }

int main(void)
{
    qel_hspace_create_data create_data = {"udp://127.0.0.1:4000", "consumer", NULL};
    t_qel_hspace hspace = NULL;
    const t_kro_char *text = NULL;
    int failed = qel_hspace_initialize(QEL_HSPACE_VERSION, 1) != 0;
    failed |= qel_hspace_error_get_text(KRO_ERR_CONN_REFUSED, &text) != 0 || text == NULL;
    failed |= qel_hspace_create(&create_data, on_event, &hspace) != KRO_ERR_BAD_PROTOCOL || hspace != NULL;
    failed |= qel_hspace_finalize() != 0;
    printf("%s\n", failed ? "consumer: FAILED" : "consumer: ok");
    return failed;
}

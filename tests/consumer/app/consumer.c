/* The smallest application of qel_hspace, built out of tree against an
 * installed copy: initialize, name an error, refuse a bad URL, finalize.
 * Exits 0 when every answer is the expected one. */
#include <stdio.h>

#include <qel_hspace.h>

static void on_event(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    (void)hspace;
    (void)event;
    (void)event_data;
}

int main(void)
{
    qel_hspace_create_data create_data = {"udp://127.0.0.1:4000", "consumer", NULL};
    t_qel_hspace hspace = NULL;
    const t_kro_char *text = NULL;
    t_kro_error error;
    int failed = 0;

    error = qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    printf("initialize: %u\n", (unsigned)error);
    failed |= error != 0;

    error = qel_hspace_error_get_text(KRO_ERR_CONN_REFUSED, &text);
    printf("text of %u: %s\n", (unsigned)KRO_ERR_CONN_REFUSED, error == 0 ? text : "?");
    failed |= error != 0 || text == NULL;

    error = qel_hspace_create(&create_data, on_event, &hspace);
    qel_hspace_error_get_text(error, &text);
    printf("create %s: %u (%s)\n", create_data.service_url, (unsigned)error, text);
    failed |= error != KRO_ERR_BAD_PROTOCOL || hspace != NULL;

    error = qel_hspace_finalize();
    printf("finalize: %u\n", (unsigned)error);
    failed |= error != 0;

    printf("%s\n", failed ? "consumer: FAILED" : "consumer: ok");
    return failed;
}

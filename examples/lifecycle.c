/* lifecycle - the life of a handle, without a service.
 *
 * Initializes the library, creates a handle for a service URL (default
 * tcp://127.0.0.1:1, where nothing listens), tries to open it, closes and
 * destroys it and finalizes the library, printing every result with its
 * text. Exits 0 when every step but the open succeeded.
 *
 *   lifecycle [URL]
 */
#include <stdio.h>

#include <qel_hspace.h>

static const char *state_name(t_qel_hspace_state state)
{
    switch (state) {
    case HSPACE_STATE_INIT: return "HSPACE_STATE_INIT";
    case HSPACE_STATE_OPEN: return "HSPACE_STATE_OPEN";
    case HSPACE_STATE_FAILED: return "HSPACE_STATE_FAILED";
    case HSPACE_STATE_CLOSING: return "HSPACE_STATE_CLOSING";
    case HSPACE_STATE_CLOSED: return "HSPACE_STATE_CLOSED";
    }
    return "?";
}

/* Prints one step's result; returns it. */
static t_kro_error report(const char *step, t_kro_error error)
{
    const t_kro_char *text = "?";
    qel_hspace_error_get_text(error, &text);
    printf("%-28s -> %u (%s)\n", step, (unsigned)error, text);
    return error;
}

/* Prints the handle's state; returns the result of get_state. */
static t_kro_error print_state(t_qel_hspace hspace)
{
    t_qel_hspace_state state = HSPACE_STATE_INIT;
    t_kro_error error = qel_hspace_get_state(hspace, &state);
    if (error != 0) return report("get_state", error);
    printf("  state %s\n", state_name(state));
    return 0;
}

/* Events need an open handle; none arrive here. */
static void on_event(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    (void)hspace;
    (void)event_data;
    printf("event %d\n", (int)event);
}

int main(int argc, char **argv)
{
    qel_hspace_create_data create_data = {"tcp://127.0.0.1:1", "lifecycle", "examples"};
    t_qel_hspace hspace = NULL;
    char step[300];
    int failed = 0;

    if (argc > 1) create_data.service_url = argv[1];

    failed |= report("initialize", qel_hspace_initialize(QEL_HSPACE_VERSION, 1)) != 0;
    snprintf(step, sizeof step, "create %s", create_data.service_url);
    failed |= report(step, qel_hspace_create(&create_data, on_event, &hspace)) != 0;
    if (hspace != NULL) {
        failed |= print_state(hspace) != 0;
        report("open", qel_hspace_open(hspace));
        failed |= print_state(hspace) != 0;
        failed |= report("close", qel_hspace_close(hspace)) != 0;
        failed |= print_state(hspace) != 0;
        failed |= report("destroy", qel_hspace_destroy(&hspace)) != 0;
        failed |= hspace != NULL;
    }
    failed |= report("finalize", qel_hspace_finalize()) != 0;
    return failed;
}

/* A client of orvbrokerd in C, with the client library.
 *
 *   example_client_c call NAME [DATA]     prints the answer's data
 *   example_client_c subscribe EVENT      prints each event, until it is interrupted
 */

#include <orvbroker/client_c.h>

#include <stdio.h>
#include <string.h>

enum { SUCCESS, FAILED, USAGE, UNAVAILABLE };

static int report(int error)
{
    fprintf(stderr, "orvbrokerd: %s\n", orvbroker_message(error));
    return UNAVAILABLE;
}

static int call(struct orvbroker_client* client, const char* name, const char* data)
{
    const int error = orvbroker_call(client, name, data, ORVBROKER_CALL_TIMEOUT);
    if (error != ORVBROKER_OK)
        return report(error);
    const int status = orvbroker_status(client);
    fprintf(status == 0 ? stdout : stderr, "%s\n", orvbroker_data(client, NULL));
    return status == 0 ? SUCCESS : FAILED;
}

static int subscribe(struct orvbroker_client* client, const char* event)
{
    int error = orvbroker_subscribe(client, event, ORVBROKER_CALL_TIMEOUT);
    while (error == ORVBROKER_OK) {
        error = orvbroker_next_event(client, ORVBROKER_FOREVER);
        if (error == ORVBROKER_OK) {
            puts(orvbroker_event(client, NULL));
            fflush(stdout); /* at once, for whoever reads it in a pipe */
        }
    }
    return report(error);
}

int main(int argc, char** argv)
{
    const char* action = argc > 1 ? argv[1] : "";
    const int is_call = strcmp(action, "call") == 0 && (argc == 3 || argc == 4);
    if (!is_call && !(strcmp(action, "subscribe") == 0 && argc == 3)) {
        fputs("usage: example_client_c call NAME [DATA] | subscribe EVENT\n", stderr);
        return USAGE;
    }
    struct orvbroker_client* client = orvbroker_new();
    const int error = orvbroker_connect(client, ORVBROKER_CONNECT_TIMEOUT);
    int status = UNAVAILABLE;
    if (error != ORVBROKER_OK)
        status = report(error);
    else if (is_call)
        status = call(client, argv[2], argc == 4 ? argv[3] : NULL);
    else
        status = subscribe(client, argv[2]);
    orvbroker_free(client);
    return status;
}

#pragma once

#include <stddef.h>

/**
 * The client of the broker daemon for programs in C. <orvbroker/client.h> is the same for C++ and tells of
 * the protocol's rules at length.
 *
 *     struct orvbroker_client* client = orvbroker_new();
 *     int error = orvbroker_connect(client, ORVBROKER_CONNECT_TIMEOUT);
 *     if (error == ORVBROKER_OK)
 *         error = orvbroker_call(client, "get_services_status", NULL, ORVBROKER_CALL_TIMEOUT);
 *     if (error != ORVBROKER_OK)
 *         fprintf(stderr, "%s\n", orvbroker_message(error));
 *     else if (orvbroker_status(client) == 0)
 *         puts(orvbroker_data(client, NULL)); // {"status": 1}
 *     orvbroker_free(client);
 *
 * Every time-out is in milliseconds; ORVBROKER_FOREVER, or any number below 0, is none. Every function takes
 * a null client, which behaves like one that is not connected, so that only orvbroker_connect() need be
 * checked. No exception leaves these functions. Nothing here is thread-safe; different clients in different
 * threads are.
 */

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ORVBROKER_FOREVER = -1,
    ORVBROKER_CONNECT_TIMEOUT = 5000,
    /** Longer than the 60 seconds after which the daemon gives up waiting for another daemon's answer. */
    ORVBROKER_CALL_TIMEOUT = 65000,
};

enum orvbroker_error {
    ORVBROKER_OK = 0,
    ORVBROKER_NOT_RUNNING,      /**< nobody listens on the daemon's socket */
    ORVBROKER_NOT_PERMITTED,    /**< the system does not let this process connect */
    ORVBROKER_CONNECTION_LOST,  /**< the daemon closed the connection, or it was not open */
    ORVBROKER_TIMED_OUT,        /**< no answer, or no event, in time */
    ORVBROKER_MALFORMED_ANSWER, /**< what arrived is not what the daemon sends */
    ORVBROKER_REFUSED,          /**< the daemon answered a subscription with a failure */
    ORVBROKER_INVALID_ARGUMENT, /**< null, a request beyond its bound, a call on a subscribed connection */
    ORVBROKER_SYSTEM,           /**< a system call failed; errno says why */
    ORVBROKER_NO_MEMORY,        /**< the connection is closed */
};

/** What went wrong and what to do about it, in one line without a full stop. It lives for ever. */
const char* orvbroker_message(int error);

struct orvbroker_client;

/** A client without a connection, to be given to orvbroker_free(). Null without memory. */
struct orvbroker_client* orvbroker_new(void);
void orvbroker_free(struct orvbroker_client* client);

/** Connects to the daemon, closing an earlier connection first. */
int orvbroker_connect(struct orvbroker_client* client, int timeout);
/** The same with another name in the abstract namespace than the daemon's; for tests. */
int orvbroker_connect_to(struct orvbroker_client* client, const char* socket_name, int timeout);

/**
 * Sends the command `name` with the JSON text `data`, none when it is null or empty, and waits for its
 * answer. A failed command is an answer like any other: look at orvbroker_status(). The daemon closes the
 * connection after an answer whose status is not 0, and on a text that is not JSON:
 * ORVBROKER_CONNECTION_LOST.
 */
int orvbroker_call(struct orvbroker_client* client, const char* name, const char* data, int timeout);

/** The status of the last answer, 0 for success and as long as there is none. */
int orvbroker_status(const struct orvbroker_client* client);
/**
 * The JSON text of the last answer's "data", "null" as long as there is none. It ends with a NUL byte, which
 * `length`, unless it is null, does not count, and lives until the next call or the end of the client.
 */
const char* orvbroker_data(const struct orvbroker_client* client, size_t* length);

/** Subscribes to an event; from then on this connection only receives. */
int orvbroker_subscribe(struct orvbroker_client* client, const char* event, int timeout);
/**
 * Waits for the next event, whose text orvbroker_event() gives. ORVBROKER_TIMED_OUT leaves the connection
 * open, and a half received event is continued by the next call.
 */
int orvbroker_next_event(struct orvbroker_client* client, int timeout);
/** The text of the last event, mostly JSON, as for orvbroker_data(); empty as long as there is none. */
const char* orvbroker_event(const struct orvbroker_client* client, size_t* length);

/**
 * For a loop of one's own: watch this for input, then call orvbroker_next_event() with a time-out of 0. -1
 * while there is no connection.
 */
int orvbroker_fd(const struct orvbroker_client* client);

/**
 * The number of the user who serves the connection, -1 while there is none. The daemon's name can be taken by whoever
 * comes first: an answer of another user than root or one's own may be anything.
 */
long long orvbroker_server_uid(const struct orvbroker_client* client);

void orvbroker_close(struct orvbroker_client* client);

#ifdef __cplusplus
}
#endif

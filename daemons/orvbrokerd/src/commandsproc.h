#pragma once

#include "evhandler.h"

#include <orvexchange/orvexchange.h>

#include <string>

// The handlers of the client commands. A handler returns kDone, kFailed or, when it has sent a request over
// the exchange, kPending; what it leaves in `response` (an owned value, JSON null beforehand) becomes the
// answer's data. A response callback works the same way on the exchange's answer.

namespace orv::brokerd {

// Protection services.
int process_enable_services();
int process_disable_services();
int process_get_services_status(json_t*& response);
int process_pro_features_enable();
int process_pro_features_disable();

// Registration. The outcome reaches clients as the event "cloud_registration_status".
int process_start_cloud_registration(json_t* data);

// Vulnerability assessment.
int process_set_va_cloud_trigger(json_t* data);
int process_va_start();
int process_va_stop();
int process_va_self_scan_start();
int process_va_status(Connection* conn, int epfd);
Result get_va_scan_status_cb(const Message* response, json_t*& out, void* arg);

} // namespace orv::brokerd

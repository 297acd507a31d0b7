#include <syslog.h>

#include "shim/fv.h"

namespace {

constexpr const char* kLogTag = "FerovaneHelper";

}  // namespace

void fv_log(bool failure, const char* text) {
    ::openlog(kLogTag, LOG_PID, LOG_DAEMON);
    ::syslog(failure ? LOG_ERR : LOG_NOTICE, "%s", text);
    ::closelog();  // no descriptor stays open
}

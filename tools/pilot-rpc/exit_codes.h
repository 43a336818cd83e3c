#pragma once

// What `pilot-rpc` exits with, so that scripts can tell the outcomes apart.

namespace pilot_rpc_tool {

enum exit_code : int {
    exit_ok = 0,           ///< the call was answered with result code 0; subscribe/record ended as asked
    exit_error_answer = 1, ///< the service answered with a non-zero result code
    exit_usage = 2,        ///< bad command line (including a non-numeric address)
    exit_unreachable = 3,  ///< no connection within the time-out
    exit_timeout = 4,      ///< connected, but no answer within the time-out
    exit_failure = 5,      ///< the link closed mid-call, an undecodable answer, a file that cannot be written
};

}  // namespace pilot_rpc_tool

// Compiled into every program that links the host adapters, and only in
// ThreadSanitizer builds.
//
// The Paho C++ library is not instrumented. It drops its references to a
// token with atomic decrements that ThreadSanitizer cannot see, then deletes
// the token or signals its condition on its own threads; seen from the
// instrumented side, every such delete or signal after our last use of the
// same token looks unsynchronised. These entries name only the library's
// token completion and clean-up functions, never a frame that calls into our
// code, so races in our handlers are still reported.

extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
    return "race:mqtt::async_client::remove_token\n"
           "race:mqtt::token::on_success\n"
           "race:mqtt::token::on_failure\n";
}

// Compiled into every program that links the host adapters, and only in
// ThreadSanitizer builds.
//
// Paho C++ and POCO are not instrumented. They drop their references to an
// object with atomic decrements that ThreadSanitizer cannot see, then delete
// it (or signal its condition) on whichever thread let go last; seen from the
// instrumented side, every such delete after another thread's last use of the
// same object looks unsynchronised. The entries name only those libraries'
// own clean-up functions, never a frame that calls into our code, so races in
// our handlers are still reported.
//
// - Paho: a token's completion and removal.
// - POCO: the delegate with which each HTTP server connection listens for the
//   server stopping. Stopping the server notifies through shared copies of the
//   delegates while a closing connection unregisters its own; the copy that
//   goes last destroys the delegate. The server runs each connection inside
//   a watching wrapper, so the delegate's destruction is also seen inside
//   POCO's connection destructor.
// - POCO: the accepting thread's copy of a new connection's socket. When the
//   connection was served quickly, that copy is the last reference and the
//   accepting thread deletes the socket after the connection's thread (which
//   read its address and descriptor for the request deadline) let go.

extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
    return "race:mqtt::async_client::remove_token\n"
           "race:mqtt::token::on_success\n"
           "race:mqtt::token::on_failure\n"
           "race:Poco::Delegate<Poco::Net::HTTPServerConnection, bool const, false>::~Delegate\n"
           "race:Poco::Net::HTTPServerConnection::~HTTPServerConnection\n"
           "race:Poco::Net::TCPServer::run\n";
}

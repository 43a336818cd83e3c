#pragma once

// POCO's HTTP connection, taken up under a request deadline.
//
// POCO's HTTPServer makes its connections itself; to watch a connection from
// the moment a thread takes it up (before the first request head is read),
// the server runs POCO's TCPServer with this factory, whose connections are
// POCO's HTTPServerConnection run inside an HttpRequestDeadlines::Watch.

#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/TCPServerConnectionFactory.h>

#include "http/HttpRequestDeadline.h"

namespace vlm {

struct HttpServerContext;

class HttpConnectionFactory : public Poco::Net::TCPServerConnectionFactory {
public:
    /// Connections serve their requests with HttpApiRequestHandler on `context`.
    HttpConnectionFactory(HttpServerContext& context, Poco::Net::HTTPServerParams::Ptr params);

    Poco::Net::TCPServerConnection* createConnection(const Poco::Net::StreamSocket& socket) override;

    /// What HTTPServer::stopAll does after the server stopped accepting: tells
    /// every open connection the server stopped; with `abortCurrent`, their
    /// sockets are shut down, so handlers blocked on them fail at once.
    void stopConnections(bool abortCurrent);

private:
    class HandlerFactory;

    HttpServerContext& context;
    Poco::Net::HTTPServerParams::Ptr params;
    HandlerFactory* handlerFactory;  // owned by handlers
    Poco::Net::HTTPRequestHandlerFactory::Ptr handlers;
};

} // namespace vlm

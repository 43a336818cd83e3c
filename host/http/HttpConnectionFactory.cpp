#include "http/HttpConnectionFactory.h"

#include <Poco/Net/HTTPServerConnection.h>

#include "http/HttpApiRequestHandler.h"
#include "http/HttpServerContext.h"

namespace vlm {
namespace {

class WatchedConnection : public Poco::Net::HTTPServerConnection {
public:
    WatchedConnection(const Poco::Net::StreamSocket& socket, Poco::Net::HTTPServerParams::Ptr params,
                      Poco::Net::HTTPRequestHandlerFactory::Ptr handlers, HttpRequestDeadlines& deadlines)
        : HTTPServerConnection(socket, params, handlers), deadlines(deadlines)
    {
    }

    void run() override
    {
        const HttpRequestDeadlines::Watch watch(deadlines, socket());
        HTTPServerConnection::run();
    }

private:
    HttpRequestDeadlines& deadlines;
};

} // namespace

class HttpConnectionFactory::HandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit HandlerFactory(HttpServerContext& context) : context(context) {}

    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override
    {
        return new HttpApiRequestHandler(context);
    }

    void stopAll(bool abortCurrent) { serverStopped(this, abortCurrent); }

private:
    HttpServerContext& context;
};

HttpConnectionFactory::HttpConnectionFactory(HttpServerContext& context, Poco::Net::HTTPServerParams::Ptr params)
    : context(context), params(std::move(params)), handlerFactory(new HandlerFactory(context)),
      handlers(handlerFactory)
{
}

Poco::Net::TCPServerConnection* HttpConnectionFactory::createConnection(const Poco::Net::StreamSocket& socket)
{
    return new WatchedConnection(socket, params, handlers, context.deadlines);
}

void HttpConnectionFactory::stopConnections(bool abortCurrent)
{
    handlerFactory->stopAll(abortCurrent);
}

} // namespace vlm

#include "http/HttpApiServer.h"

#include <algorithm>
#include <stdexcept>

#include <Poco/Logger.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/TCPServer.h>
#include <Poco/ThreadPool.h>

#include "VelmoraCommon.h"
#include "http/HttpConnectionFactory.h"
#include "http/HttpServerContext.h"

namespace vlm {
namespace {

const HttpApiServerOptions& checked(const HttpApiServerOptions& options)
{
    if (const auto problem = httpCapacityProblem(options))
        throw std::invalid_argument(problem->key + ": " + problem->reason);
    return options;
}

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

} // namespace

HttpApiServer::HttpApiServer(HttpApiServerOptions options)
    : context(std::make_unique<HttpServerContext>(checked(options))),
      workers(std::make_unique<Poco::ThreadPool>("VelmoraHttp", std::min(2, context->options.workerThreads),
                                                 std::max(1, context->options.workerThreads)))
{
}

HttpApiServer::~HttpApiServer()
{
    stop();
    {
        std::lock_guard<std::mutex> lock(lifecycleMutex);
        server.reset();
    }
    // Connection threads use the context; none may outlive it.
    workers->joinAll();
}

void HttpApiServer::start()
{
    std::lock_guard<std::mutex> lock(lifecycleMutex);
    if (started || context->stopping.load())
        throw Poco::IllegalStateException("http server already started or stopped");
    const auto& options = context->options;
    auto socket = std::make_unique<Poco::Net::ServerSocket>();
    socket->bind(Poco::Net::SocketAddress(options.bindAddress, options.port), true);
    socket->listen(std::max(16, options.queueSize));
    boundPort = socket->address().port();

    Poco::Net::HTTPServerParams::Ptr params = new Poco::Net::HTTPServerParams;
    params->setMaxThreads(std::max(1, options.workerThreads));
    params->setMaxQueued(std::max(1, options.queueSize));
    params->setKeepAlive(options.keepAlive);
    params->setKeepAliveTimeout(Poco::Timespan(options.keepAliveTimeout.count(), 0));
    params->setTimeout(Poco::Timespan(options.socketTimeout.count(), 0));

    auto* factory = new HttpConnectionFactory(*context, params);
    connections = factory;
    server = std::make_unique<Poco::Net::TCPServer>(Poco::Net::TCPServerConnectionFactory::Ptr(factory), *workers,
                                                    *socket, params);
    server->start();
    listener = std::move(socket);
    started = true;
    logger().information("http api server listening on %s:%d", options.bindAddress, static_cast<int>(boundPort));
}

bool HttpApiServer::stop()
{
    {
        std::lock_guard<std::mutex> lock(lifecycleMutex);
        // Aborting shuts down every connection's socket, so a handler blocked
        // in a write, or writing its next event block, fails at once.
        if (!context->stopping.exchange(true) && server) {
            server->stop();
            connections->stopConnections(true);
            // The server only stops accepting; closing the socket makes new
            // clients fail at once instead of waiting in the backlog.
            listener->close();
        }
    }
    if (context->waitUntilIdle(context->options.stopTimeout))
        return true;
    logger().error("http api server stopped with %d handlers still running", context->runningHandlers());
    return false;
}

std::uint16_t HttpApiServer::port() const
{
    std::lock_guard<std::mutex> lock(lifecycleMutex);
    return boundPort;
}

bool HttpApiServer::stopping() const
{
    return context->stopping.load();
}

int HttpApiServer::runningHandlers() const
{
    return context->runningHandlers();
}

HttpServerCounters HttpApiServer::counters() const
{
    HttpServerCounters counters = context->admission.counters();
    counters.slowClientsCut = context->deadlines.cuts();
    counters.connections = context->deadlines.connections();
    return counters;
}

void HttpApiServer::apiRegist(std::string path, StreamApiHandler handler)
{
    HttpRoute route;
    route.stream = std::move(handler);
    // What EventSource and "curl -N" send.
    route.methods = {Poco::Net::HTTPRequest::HTTP_GET};
    registerRoute(std::move(path), std::move(route));
}

void HttpApiServer::apiRegist(std::string path, RequestApiHandler handler)
{
    HttpRoute route;
    route.request = std::move(handler);
    // Commands change the aircraft: never by a GET that any <img> can send.
    route.methods = {Poco::Net::HTTPRequest::HTTP_POST};
    registerRoute(std::move(path), std::move(route));
}

void HttpApiServer::openRouteRegist(std::string path, StreamApiHandler handler)
{
    HttpRoute route;
    route.stream = std::move(handler);
    route.open = true;
    route.methods = {Poco::Net::HTTPRequest::HTTP_GET, Poco::Net::HTTPRequest::HTTP_HEAD};
    registerRoute(std::move(path), std::move(route));
}

void HttpApiServer::hostRouteRegist(std::string path, std::vector<std::string> methods, StreamApiHandler handler)
{
    HttpRoute route;
    route.stream = std::move(handler);
    route.methods = std::move(methods);
    registerRoute(std::move(path), std::move(route));
}

std::vector<HttpRequestCount> HttpApiServer::requestCounts() const
{
    return context->requests.snapshot();
}

std::uint64_t HttpApiServer::guardRefusals() const
{
    return context->guard.refusals();
}

std::vector<std::string> HttpApiServer::routePaths() const
{
    return context->routes.paths();
}

void HttpApiServer::registerRoute(std::string path, HttpRoute route)
{
    if (path.empty() || path.front() != '/' || (!route.stream && !route.request)) {
        logger().error("http route \"%s\" refused: a path must start with '/' and have a handler", path);
        return;
    }
    context->routes.set(path, std::move(route));
}

} // namespace vlm

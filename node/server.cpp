#include "node/server.hpp"

#include <asio/dispatch.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/post.hpp>
#include <asio/read.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>

#include <array>
#include <cstring>
#include <future>

#include "log/logger.hpp"
#include "node/address.hpp"
#include "node/parallel_fill.hpp"
#include "node/request_processor.hpp"
#include "wire/category_table.hpp"
#include "wire/frame.hpp"

namespace zlk::node
{

using asio::ip::tcp;
using boost::system::error_code;

// One client connection: read a frame, answer it, read the next. Every step runs on the thread of the
// connection's event loop (one thread per loop, so no strand is needed); an answer computed on a
// worker thread comes back to that loop to be written.
class connection : public std::enable_shared_from_this<connection>
{
public:
    connection(server & owner, tcp::socket socket)
        : _server(owner)
        , _node(owner.state())
        , _processor(owner.state())
        , _socket(std::move(socket))
        , _timer(_socket.get_executor())
    {
    }

    void start()
    {
        std::error_code ignored;
        _socket.set_option(tcp::no_delay(true), ignored);
        asio::dispatch(_socket.get_executor(), [self = shared_from_this()] { self->next_frame(); });
    }

    // From any thread.
    void close()
    {
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->close_now(); });
    }

    // A held reply goes out (from any thread).
    void release()
    {
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->write_reply(); });
    }

private:
    // Bytes after the held ones, as many as the buffer takes: a small request arrives whole in one
    // read, head and body together.
    void read_more()
    {
        if (_closed)
        {
            return;
        }
        _socket.async_read_some(asio::buffer(_in.get() + _in_size, _in_capacity - _in_size),
                                [self = shared_from_this()](const std::error_code & ec, std::size_t n)
                                { self->on_read(ec, n); });
    }

    void on_read(const std::error_code & ec, std::size_t n)
    {
        if (ec || _closed)
        {
            close_now();
            return;
        }
        _in_size += n;
        next_frame();
    }

    // Answers the frame at the front of the held bytes once it is whole, or reads on.
    void next_frame()
    {
        while (_frame_size == 0)
        {
            if (_in_size < protocol::frame_header_size)
            {
                read_more();
                return;
            }
            _node.count_in(protocol::frame_header_size);
            std::uint64_t body_size = 0;
            switch (_processor.check_header(std::span(_in.get(), protocol::frame_header_size), body_size))
            {
            case header_verdict::body_follows:
                break;
            case header_verdict::empty_frame:
                consume(protocol::frame_header_size);
                continue;
            case header_verdict::other_version:
                log::log(log::level::warning, "node {}: a peer speaks another protocol version",
                         _node.self().id);
                _faults = _node.faults();
                _processor.answer_other_version(_out);
                _after = after_reply::close;
                send_reply();
                return;
            case header_verdict::malformed:
                log::log(log::level::warning, "node {}: invalid frame header, closing the connection",
                         _node.self().id);
                close_now();
                return;
            case header_verdict::too_large:
                log::log(log::level::warning, "node {}: a frame of {} bytes is beyond the input limit of {}",
                         _node.self().id, serialization::detail::load_le<std::uint64_t>(_in.get() + 4),
                         _node.settings().max_in_buffer_size);
                close_now();
                return;
            }
            const std::size_t total = protocol::frame_header_size + static_cast<std::size_t>(body_size);
            if (total > _in_capacity && !reserve_input(total))
            {
                close_now();
                return;
            }
            _frame_size = total;
        }
        if (_in_size < _frame_size)
        {
            read_more();
            return;
        }
        on_frame();
    }

    void on_frame()
    {
        _node.count_in(_frame_size - protocol::frame_header_size);
        _faults = _node.faults();
        if (_faults->close_after_request)
        {
            close_now();
            return;
        }
        if (error_code decode_error = _processor.decode(std::span(_in.get(), _frame_size), _request))
        {
            log::log(log::level::warning, "node {}: cannot decode a request: {}", _node.self().id,
                     decode_error.message());
            close_now();
            return;
        }
        if (_processor.may_wait(_request))
        {
            asio::post(_server.workers(), [self = shared_from_this()] { self->answer(); });
        }
        else
        {
            answer();
        }
    }

    // Room for a frame of `total` bytes, keeping the bytes held. Not value-initialised: the socket
    // fills it.
    bool reserve_input(std::size_t total)
    {
        try
        {
            auto larger = std::make_unique_for_overwrite<std::uint8_t[]>(total);
            std::memcpy(larger.get(), _in.get(), _in_size);
            // A large frame's room faulted in at once, on several threads, rather than page by page
            // as the socket fills it, which stalls every read of the frame.
            const fill_job room{larger.get() + _in_size, nullptr, total - _in_size, total};
            run_fills(std::span(&room, 1));
            _in = std::move(larger);
            _in_capacity = total;
            return true;
        }
        catch (const std::bad_alloc &)
        {
            return false;
        }
    }

    // Drops the frame at the front once its reply is out (the request's views point into it until
    // then). Bytes of a next frame that came with it move to the front.
    void consume(std::size_t size)
    {
        _in_size -= size;
        if (_in_size != 0)
        {
            std::memmove(_in.get(), _in.get() + size, _in_size);
        }
        _frame_size = 0;
        if (_in_capacity > max_kept_input && size <= max_kept_input && _in_size <= default_input)
        {
            // A large frame's buffer isn't kept for the small ones that usually follow (and is, when
            // memory is short). It stays while large frames follow each other, as the groups of a
            // time-series push do: a fresh buffer for each would fault all its pages in again.
            try
            {
                auto smaller = std::make_unique_for_overwrite<std::uint8_t[]>(default_input);
                std::memcpy(smaller.get(), _in.get(), _in_size);
                _in = std::move(smaller);
                _in_capacity = default_input;
            }
            catch (const std::bad_alloc &)
            {
            }
        }
    }

    // On the strand, or on a worker thread for an operation that may wait.
    void answer()
    {
        bool answered = false;
        try
        {
            _after = _processor.answer(_request, _out, *_faults);
            answered = true;
        }
        catch (const std::exception & x)
        {
            log::log(log::level::error, "node {}: cannot answer a request: {}", _node.self().id, x.what());
        }
        asio::dispatch(_socket.get_executor(),
                       [self = shared_from_this(), answered]
                       {
                           if (answered)
                           {
                               self->send_reply();
                           }
                           else
                           {
                               self->close_now();
                           }
                       });
    }

    void send_reply()
    {
        if (_closed)
        {
            return;
        }
        if (_faults->hold_replies)
        {
            _server.hold(shared_from_this());
            return;
        }
        if (_faults->reply_delay.count() > 0)
        {
            _timer.expires_after(_faults->reply_delay);
            _timer.async_wait(
                [self = shared_from_this()](const std::error_code & ec)
                {
                    if (!ec)
                    {
                        self->write_reply();
                    }
                });
            return;
        }
        write_reply();
    }

    void write_reply()
    {
        if (_closed)
        {
            return;
        }
        _buffers.clear();
        _hard_close = false;
        if (_faults->garbage_replies)
        {
            _buffers.emplace_back(garbage_reply, sizeof(garbage_reply));
        }
        else if (_faults->truncated_replies)
        {
            serialization::flatten_into(_out.frame, _faulty);
            // The header and half of the body: a reader waits for bytes that never come, then sees the
            // connection close.
            const std::size_t keep =
                protocol::frame_header_size + (_faulty.size() - protocol::frame_header_size) / 2;
            _buffers.emplace_back(_faulty.data(), keep);
            _hard_close = true;
        }
        else
        {
            if (_faults->reply_version != 0 && !_out.frame.empty())
            {
                // The frame's head word is the first thing written into the scratch area.
                serialization::detail::store_le(_out.scratch.data() + 2, _faults->reply_version);
            }
            for (const auto & piece : _out.frame)
            {
                _buffers.emplace_back(piece.data, piece.size);
            }
        }
        asio::async_write(_socket, _buffers,
                          [self = shared_from_this()](const std::error_code & ec, std::size_t n)
                          { self->on_written(ec, n); });
    }

    void on_written(const std::error_code & ec, std::size_t n)
    {
        if (ec || _closed)
        {
            close_now();
            return;
        }
        _node.count_out(n);
        _out.recycle();
        if (_hard_close)
        {
            close_now();
            return;
        }
        switch (_after)
        {
        case after_reply::read_next:
            consume(_frame_size);
            next_frame();
            return;
        case after_reply::close:
            close_gracefully();
            return;
        case after_reply::stop_node:
            _server.request_stop();
            return;
        }
    }

    // Our side stops sending; the peer reads the reply, sees the end and closes; then so do we. What
    // the peer still sends meanwhile is read and dropped, up to a limit.
    void close_gracefully()
    {
        std::error_code ignored;
        _socket.shutdown(tcp::socket::shutdown_send, ignored);
        drain();
    }

    void drain()
    {
        if (_closed)
        {
            return;
        }
        _socket.async_read_some(asio::buffer(_drain),
                                [self = shared_from_this()](const std::error_code & ec, std::size_t n)
                                {
                                    self->_drained += n;
                                    if (ec || self->_drained > drain_limit)
                                    {
                                        self->close_now();
                                        return;
                                    }
                                    self->drain();
                                });
    }

    void close_now()
    {
        if (_closed)
        {
            return;
        }
        _closed = true;
        std::error_code ignored;
        _timer.cancel();
        _socket.shutdown(tcp::socket::shutdown_both, ignored);
        _socket.close(ignored);
        _server.forget(this);
    }

    static constexpr std::size_t drain_limit = 1 << 20;
    // The input buffer of a connection: what it starts with, and the most it keeps between frames.
    static constexpr std::size_t default_input = 4096;
    static constexpr std::size_t max_kept_input = 4 << 20;

    server & _server;
    node_state & _node;
    request_processor _processor;
    tcp::socket _socket;
    asio::steady_timer _timer;

    // The bytes read and not yet consumed: the frame being answered first, and perhaps the start of
    // the next one. _frame_size is 0 until the first frame's head has been checked.
    std::unique_ptr<std::uint8_t[]> _in = std::make_unique_for_overwrite<std::uint8_t[]>(default_input);
    std::size_t _in_capacity = default_input;
    std::size_t _in_size = 0;
    std::size_t _frame_size = 0;
    protocol::message _request;
    reply_storage _out;
    std::shared_ptr<const fault_settings> _faults;
    after_reply _after = after_reply::read_next;
    std::vector<asio::const_buffer> _buffers;
    std::vector<std::uint8_t> _faulty;
    std::array<std::uint8_t, 4096> _drain{};
    std::size_t _drained = 0;
    bool _hard_close = false;
    bool _closed = false;
};

server::server(node_state & state)
    : _state(state)
    , _io(1)
    , _accept_strand(asio::make_strand(_io))
    , _acceptor(_accept_strand)
{
}

server::~server()
{
    stop();
}

error_code server::open_acceptor()
{
    std::error_code ec;
    _acceptor.open(_bound.protocol(), ec);
    if (!ec)
    {
        _acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    }
    if (!ec && _bound.address().is_v6() && _bound.address().is_unspecified())
    {
        // "::" serves IPv4 clients as well.
        _acceptor.set_option(asio::ip::v6_only(false), ec);
    }
    if (!ec)
    {
        _acceptor.bind(_bound, ec);
    }
    if (!ec)
    {
        _acceptor.listen(asio::socket_base::max_listen_connections, ec);
    }
    if (ec)
    {
        std::error_code ignored;
        _acceptor.close(ignored);
        return network::to_error_code(ec);
    }
    if (!_started)
    {
        // Once bound, the port is the node's: a socket reopened later binds to it again.
        _bound = _acceptor.local_endpoint(ec);
    }
    return network::to_error_code(ec);
}

error_code server::start()
{
    if (_started)
    {
        return make_error_code(chord::error::already_in_progress);
    }
    if (error_code ec = _state.settings_error())
    {
        return ec;
    }
    _bound = _state.settings().listen;
    if (error_code ec = open_acceptor())
    {
        return ec;
    }
    const node_settings & s = _state.settings();
    _state.set_self_endpoint(s.advertise ? *s.advertise : advertised_endpoint(_bound));
    _state.set_stop_handler([this] { request_stop(); });
    _started = true;

    const unsigned threads = s.threads == 0 ? 1 : s.threads;
    // One event loop per I/O thread, each connection on one of them: a connection's handlers never
    // meet another thread, and the loops share no lock.
    _loops.push_back(&_io);
    for (unsigned i = 1; i < threads; ++i)
    {
        _more_loops.push_back(std::make_unique<asio::io_context>(1));
        _loops.push_back(_more_loops.back().get());
    }
    for (asio::io_context * loop : _loops)
    {
        _work.push_back(asio::make_work_guard(*loop));
    }
    _workers = std::make_unique<asio::thread_pool>(threads);
    if (!_state.faults()->refuse_connections)
    {
        asio::dispatch(_accept_strand, [this] { accept(); });
    }
    else
    {
        std::error_code ignored;
        _acceptor.close(ignored);
    }
    for (asio::io_context * loop : _loops)
    {
        _threads.emplace_back([this, loop] { run_io(*loop); });
    }
    log::log(log::level::info, "node {} listening on {}", _state.self().id, endpoint_text(_bound));
    return {};
}

void server::run_io(asio::io_context & loop) noexcept
{
    for (;;)
    {
        try
        {
            loop.run();
            return;
        }
        catch (const std::exception & x)
        {
            log::log(log::level::error, "node {}: unexpected failure in a handler: {}", _state.self().id,
                     x.what());
        }
    }
}

void server::accept()
{
    if (!_acceptor.is_open())
    {
        return;
    }
    asio::io_context & loop = *_loops[_next_loop++ % _loops.size()];
    _acceptor.async_accept(
        loop,
        [this](const std::error_code & ec, tcp::socket socket)
        {
            if (ec == asio::error::operation_aborted || !_acceptor.is_open())
            {
                return;
            }
            if (!ec)
            {
                const auto faults = _state.faults();
                std::shared_ptr<connection> c;
                {
                    std::lock_guard lock(_mutex);
                    if (!stopping() && !faults->close_on_accept &&
                        _connections.size() < _state.settings().server_sessions)
                    {
                        c = std::make_shared<connection>(*this, std::move(socket));
                        _connections.emplace(c.get(), c);
                        _state.open_connections.store(static_cast<std::uint32_t>(_connections.size()),
                                                      std::memory_order_relaxed);
                    }
                }
                if (c)
                {
                    c->start();
                }
                else
                {
                    std::error_code ignored;
                    socket.close(ignored);
                }
            }
            else
            {
                log::log(log::level::warning, "node {}: accept failed: {}", _state.self().id, ec.message());
            }
            accept();
        });
}

void server::apply_faults()
{
    if (!_started)
    {
        return;
    }
    // Done when this returns: a test that refuses connections expects the next connect to fail.
    std::promise<void> done;
    auto applied = done.get_future();
    asio::dispatch(_accept_strand,
                   [this, &done]
                   {
                       struct signal_done
                       {
                           std::promise<void> & p;
                           ~signal_done() { p.set_value(); }
                       } signal{done};
                       if (stopping())
                       {
                           return;
                       }
                       const bool refuse = _state.faults()->refuse_connections;
                       if (refuse && _acceptor.is_open())
                       {
                           std::error_code ignored;
                           _acceptor.close(ignored);
                       }
                       else if (!refuse && !_acceptor.is_open())
                       {
                           if (error_code ec = open_acceptor())
                           {
                               log::log(log::level::error, "node {}: cannot listen again on {}: {}",
                                        _state.self().id, endpoint_text(_bound), ec.message());
                               return;
                           }
                           accept();
                       }
                   });
    applied.wait();
}

void server::hold(std::shared_ptr<connection> c)
{
    {
        std::lock_guard lock(_mutex);
        if (stopping())
        {
            return;
        }
        _held.push_back(std::move(c));
    }
    _held_changed.notify_all();
}

void server::release_held()
{
    std::vector<std::shared_ptr<connection>> held;
    {
        std::lock_guard lock(_mutex);
        held.swap(_held);
    }
    for (const auto & c : held)
    {
        c->release();
    }
}

bool server::wait_for_held(std::size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(_mutex);
    return _held_changed.wait_for(lock, timeout, [&] { return _held.size() >= count; });
}

void server::forget(connection * c) noexcept
{
    std::lock_guard lock(_mutex);
    _connections.erase(c);
    _state.open_connections.store(static_cast<std::uint32_t>(_connections.size()), std::memory_order_relaxed);
}

std::size_t server::connection_count() const
{
    std::lock_guard lock(_mutex);
    return _connections.size();
}

asio::ip::tcp::endpoint server::bound_endpoint() const
{
    return _bound;
}

void server::on_stop(std::function<void()> handler)
{
    std::lock_guard lock(_mutex);
    _stop_handlers.push_back(std::move(handler));
}

void server::request_stop()
{
    std::vector<std::shared_ptr<connection>> open;
    std::vector<std::function<void()>> handlers;
    {
        std::lock_guard lock(_mutex);
        if (_stopping.exchange(true, std::memory_order_acq_rel))
        {
            return;
        }
        for (const auto & [raw, weak] : _connections)
        {
            if (auto c = weak.lock())
            {
                open.push_back(std::move(c));
            }
        }
        _held.clear();
        handlers.swap(_stop_handlers);
    }
    _held_changed.notify_all();
    if (_started)
    {
        asio::dispatch(_accept_strand,
                       [this]
                       {
                           std::error_code ignored;
                           _acceptor.close(ignored);
                       });
    }
    for (const auto & c : open)
    {
        c->close();
    }
    for (const auto & h : handlers)
    {
        h();
    }
}

void server::stop()
{
    request_stop();
    if (!_started)
    {
        return;
    }
    if (_threads.empty())
    {
        return;
    }
    // Operations that wait on other nodes end within the peer time limit.
    _workers->join();
    _work.clear();
    for (std::thread & t : _threads)
    {
        t.join();
    }
    _threads.clear();
    _state.peers().close_all();
    log::log(log::level::info, "node {} stopped", _state.self().id);
}

} // namespace zlk::node

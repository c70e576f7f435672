// The node's answers, through the in-memory request path: frames in, frames out, no sockets.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "node/entry_operations.hpp"
#include "node/entry_store.hpp"
#include "node/node_state.hpp"
#include "node/request_processor.hpp"
#include "node/status.hpp"
#include "node_test_support.hpp"

namespace zlk::node
{
namespace
{

using chord::ring_id;
using node_test::carrier;
using node_test::id_of;

constexpr std::uint16_t test_operation = 250;

chord::node_info member(const ring_id & id, unsigned short port)
{
    return chord::node_info{id, {asio::ip::address_v4::loopback(), port}};
}

// Node 200 of the ring {100, 200, 300}.
class processor_test : public ::testing::Test
{
protected:
    explicit processor_test(node_settings s = settings())
        : state(std::move(s), operations())
        , processor(state)
    {
    }

    static node_settings settings()
    {
        node_settings s;
        s.id = id_of(200);
        s.listen = {asio::ip::address_v4::loopback(), 7002};
        s.peers = {member(id_of(100), 7001), member(id_of(300), 7003)};
        s.replication_factor = 2;
        return s;
    }

    static std::shared_ptr<const operation_registry> operations()
    {
        auto r = std::make_shared<operation_registry>(standard_operations());
        // Echoes its fields as content and their size as value.
        r->add(test_operation,
               [](operation_context & ctx, protocol::result & out)
               {
                   const auto body = ctx.request().body.subspan(2);
                   ctx.content().assign(body.begin(), body.end());
                   out.value = body.size();
               });
        r->add(test_operation + 1,
               [](operation_context &, protocol::result &) { throw std::runtime_error("boom"); });
        return r;
    }

    // Sends m through the whole path and decodes the reply frame.
    const protocol::message & ask(const protocol::message & m, after_reply expected = after_reply::read_next)
    {
        request_bytes = node_test::frame_of(m);
        EXPECT_EQ(processor.handle_frame(request_bytes, request, out, faults), expected);
        serialization::flatten_into(out.frame, reply_bytes);
        EXPECT_FALSE(protocol::read_frame(reply_bytes, reply, {}));
        return reply;
    }

    template <typename T>
    const T & ask_for(const protocol::message & m, after_reply expected = after_reply::read_next)
    {
        const protocol::message & r = ask(m, expected);
        EXPECT_TRUE(std::holds_alternative<T>(r)) << protocol::message_kind_name(r);
        static const T none{};
        return std::holds_alternative<T>(r) ? std::get<T>(r) : none;
    }

    node_state state;
    request_processor processor;
    fault_settings faults;
    node_test::bytes request_bytes;
    protocol::message request;
    reply_storage out;
    node_test::bytes reply_bytes;
    protocol::message reply;
};

TEST_F(processor_test, ping_and_get_successor_of_answer_arcs_at_the_boundaries_and_round_zero)
{
    const chord::arc & own = ask_for<chord::arc>(chord::chord_request_ping{});
    EXPECT_EQ(own.predecessor.id, id_of(100));
    EXPECT_EQ(own.node, state.self());
    EXPECT_EQ(own.successor.id, id_of(300));

    const auto owner_of = [&](const ring_id & p)
    { return ask_for<chord::arc>(chord::chord_request_get_successor_of{p}).node.id; };
    EXPECT_EQ(owner_of(id_of(200)), id_of(200));
    EXPECT_EQ(owner_of(id_of(201)), id_of(300));
    EXPECT_EQ(owner_of(id_of(101)), id_of(200));
    EXPECT_EQ(owner_of(ring_id{}), id_of(100));
    EXPECT_EQ(owner_of(ring_id::max()), id_of(100));
    const chord::arc & wrap = ask_for<chord::arc>(chord::chord_request_get_successor_of{ring_id::max()});
    EXPECT_EQ(wrap.predecessor.id, id_of(300));
    EXPECT_EQ(wrap.successor.id, id_of(200));
    EXPECT_EQ(wrap.node.endpoint.port(), 7001);

    EXPECT_EQ(ask_for<chord::node_info>(chord::chord_request_closest_preceding_finger{id_of(250)}).id,
              id_of(200));
}

TEST_F(processor_test, timestamps_are_never_none_and_never_repeat)
{
    const zlk::uuid first = ask_for<zlk::uuid>(chord::chord_request_timestamp{});
    const zlk::uuid second = ask_for<zlk::uuid>(chord::chord_request_timestamp{});
    EXPECT_FALSE(first.is_none());
    EXPECT_NE(first, second);
    EXPECT_GT(first.time.tv_sec, 0);
    EXPECT_EQ(first.id, id_of(200));
}

TEST_F(processor_test, get_config_answers_its_three_items_in_value_and_refuses_others)
{
    const auto value_of = [&](std::uint8_t item)
    {
        const auto & r = ask_for<chord::chord_carrier_reply>(node_test::get_config(item));
        EXPECT_FALSE(r.result.error) << int(item);
        return r.result.value;
    };
    EXPECT_EQ(value_of(2), 2u);
    EXPECT_EQ(value_of(3), 0x10000000u);
    EXPECT_EQ(value_of(5), 0u);
    EXPECT_EQ(ask_for<chord::chord_carrier_reply>(node_test::get_config(4)).result.error,
              make_error_code(kernel::error::unexpected_value));
    EXPECT_EQ(ask_for<chord::chord_carrier_reply>(carrier(23)).result.error,
              make_error_code(serialization::error::unexpected_end));
}

TEST_F(processor_test, a_key_served_elsewhere_is_refused_unless_any_node_or_a_held_replica_will_do)
{
    // 250 is owned by 300; with factor 2 its replicas are 300 and 100.
    const auto & refusal = ask_for<protocol::result>(carrier(test_operation, id_of(250)));
    EXPECT_EQ(refusal.error, make_error_code(chord::error::wrong_peer));

    EXPECT_FALSE(ask_for<chord::chord_carrier_reply>(carrier(test_operation, id_of(150))).result.error);
    EXPECT_FALSE(
        ask_for<chord::chord_carrier_reply>(carrier(test_operation, id_of(250), {}, 0x01)).result.error);
    EXPECT_FALSE(ask_for<chord::chord_carrier_reply>(carrier(test_operation)).result.error);
    // 150 is owned here and replicated on 300: a replica read of 50 (owner 100, replica 200) is ours,
    // one of 250 (300, then 100) is not.
    EXPECT_FALSE(
        ask_for<chord::chord_carrier_reply>(carrier(test_operation, id_of(50), {}, 0x02)).result.error);
    EXPECT_EQ(ask_for<protocol::result>(carrier(test_operation, id_of(250), {}, 0x02)).error,
              make_error_code(chord::error::wrong_peer));
}

TEST_F(processor_test, unknown_unimplemented_and_failing_operations_get_carrier_replies_with_their_error)
{
    const auto error_of = [&](const chord::chord_carrier_request & r)
    { return ask_for<chord::chord_carrier_reply>(r).result.error; };
    EXPECT_EQ(error_of(carrier(9)), make_error_code(kernel::error::unknown_message));
    EXPECT_EQ(error_of(carrier(0xFFFF)), make_error_code(kernel::error::unknown_message));
    auto empty_body = carrier(0);
    empty_body.body = {};
    EXPECT_EQ(error_of(empty_body), make_error_code(kernel::error::unknown_message));
    EXPECT_EQ(error_of(carrier(static_cast<std::uint16_t>(protocol::operation::ts_evaluate_expression))),
              make_error_code(kernel::error::not_implemented));
    EXPECT_EQ(error_of(carrier(test_operation + 1)), make_error_code(kernel::error::internal_error));

    faults.failing_operations = {test_operation};
    faults.operation_error = make_error_code(kernel::error::conflict);
    // The chosen error stands even for a key owned elsewhere.
    EXPECT_EQ(error_of(carrier(test_operation, id_of(250))), make_error_code(kernel::error::conflict));
}

TEST_F(processor_test,
       a_group_is_answered_in_order_with_client_ids_echoed_and_a_misrouted_request_failing_alone)
{
    chord::chord_carrier_request_batch group;
    group.push_back(carrier(test_operation, id_of(150), {1, 2, 3}, 0, 7));
    group.push_back(carrier(test_operation, id_of(250), {}, 0, 8));
    group.push_back(carrier(9, {}, {}, 0, 9));
    group.push_back(carrier(test_operation, {}, {4}, 0, 10));
    for (int round = 0; round < 2; ++round)
    {
        const auto & replies = ask_for<chord::chord_carrier_reply_batch>(group);
        ASSERT_EQ(replies.size(), 4u);
        for (std::size_t i = 0; i < replies.size(); ++i)
        {
            EXPECT_EQ(replies[i].client_id, 7 + i);
            EXPECT_EQ(replies[i].from, state.self());
        }
        EXPECT_FALSE(replies[0].result.error);
        EXPECT_EQ(replies[0].result.value, 3u);
        EXPECT_EQ(std::vector<std::uint8_t>(replies[0].result.content_view().begin(),
                                            replies[0].result.content_view().end()),
                  (std::vector<std::uint8_t>{1, 2, 3}));
        EXPECT_EQ(replies[1].result.error, make_error_code(chord::error::wrong_peer));
        EXPECT_EQ(replies[2].result.error, make_error_code(kernel::error::unknown_message));
        EXPECT_EQ(replies[3].result.content_view().size(), 1u);
    }
    EXPECT_TRUE(ask_for<chord::chord_carrier_reply_batch>(chord::chord_carrier_request_batch{}).empty());
}

TEST_F(processor_test, frames_of_another_version_or_of_reply_kinds_are_refused_and_bad_frames_get_no_answer)
{
    node_test::bytes foreign = node_test::frame_of(chord::chord_request_ping{});
    foreign[2] = 30;
    EXPECT_EQ(processor.handle_frame(foreign, request, out, faults), after_reply::close);
    serialization::flatten_into(out.frame, reply_bytes);
    ASSERT_FALSE(protocol::read_frame(reply_bytes, reply, {}));
    EXPECT_EQ(std::get<protocol::result>(reply).error, make_error_code(protocol::error::invalid_version));

    EXPECT_EQ(ask_for<protocol::result>(zlk::uuid{}).error,
              make_error_code(protocol::error::not_implemented));
    EXPECT_EQ(ask_for<protocol::result>(chord::chord_carrier_reply{}).error,
              make_error_code(protocol::error::not_implemented));
    EXPECT_EQ(ask_for<protocol::result>(chord::chord_request_predecessor_changed{}).error,
              make_error_code(chord::error::not_implemented));

    node_test::bytes bad = node_test::frame_of(chord::chord_request_get_successor_of{});
    for (const std::size_t cut : {std::size_t{3}, std::size_t{12}, bad.size() - 1})
    {
        out.frame.clear();
        EXPECT_EQ(processor.handle_frame(std::span(bad).first(cut), request, out, faults),
                  after_reply::close);
        EXPECT_TRUE(out.frame.empty());
    }
    bad[12] = 18; // no such kind
    EXPECT_EQ(processor.handle_frame(bad, request, out, faults), after_reply::close);
    node_test::bytes zero_size = node_test::hex_frame_header(0);
    EXPECT_EQ(processor.handle_frame(zero_size, request, out, faults), after_reply::close);
    node_test::bytes huge = node_test::hex_frame_header(0x10000001);
    EXPECT_EQ(processor.handle_frame(huge, request, out, faults), after_reply::close);
    node_test::bytes empty = node_test::hex_frame_header(protocol::empty_frame_size);
    EXPECT_EQ(processor.handle_frame(empty, request, out, faults), after_reply::read_next);
}

// An entry write blocks only to reach its replicas: without any it is answered where it was read;
// with some (and for a copy coming from the owner, never) it goes to the worker threads.
TEST_F(processor_test, entry_writes_wait_for_workers_only_where_they_have_replicas_to_reach)
{
    auto with_entries = std::make_shared<operation_registry>(standard_operations());
    add_entry_operations(*with_entries, std::make_shared<entry_store>());
    const auto put = static_cast<std::uint16_t>(protocol::operation::put);
    const auto get = static_cast<std::uint16_t>(protocol::operation::get);
    const protocol::message write{node_test::carrier(put, id_of(150))};
    const protocol::message group{chord::chord_carrier_request_batch{node_test::carrier(get, id_of(150)),
                                                                     node_test::carrier(put, id_of(150))}};
    chord::chord_carrier_request copy = node_test::carrier(put, id_of(150));
    copy.from = member(id_of(100), 7001);

    node_state replicated(settings(), with_entries);
    const request_processor p(replicated);
    EXPECT_TRUE(p.may_wait(write));
    EXPECT_TRUE(p.may_wait(group));
    EXPECT_FALSE(p.may_wait(protocol::message{node_test::carrier(get, id_of(150))}));
    EXPECT_FALSE(p.may_wait(protocol::message{copy}));

    node_settings alone = settings();
    alone.replication_factor = 1;
    node_state single(alone, with_entries);
    const request_processor q(single);
    EXPECT_FALSE(q.may_wait(write));
    EXPECT_FALSE(q.may_wait(group));
}

TEST_F(processor_test, node_stop_is_refused_as_disabled_unless_enabled)
{
    EXPECT_EQ(ask_for<protocol::result>(chord::chord_request_node_stop{"test"}).error,
              make_error_code(kernel::error::operation_disabled));

    node_settings s = settings();
    s.enable_stop = true;
    node_state stoppable(s, nullptr);
    request_processor p(stoppable);
    request_bytes = node_test::frame_of(chord::chord_request_node_stop{"test"});
    EXPECT_EQ(p.handle_frame(request_bytes, request, out, faults), after_reply::stop_node);
    serialization::flatten_into(out.frame, reply_bytes);
    ASSERT_FALSE(protocol::read_frame(reply_bytes, reply, {}));
    EXPECT_FALSE(std::get<protocol::result>(reply).error);
}

TEST_F(processor_test, the_status_record_is_json_with_its_keys_in_order_and_live_counters)
{
    ask(chord::chord_request_ping{});
    ask(carrier(9));
    const auto & r = ask_for<chord::chord_carrier_reply>(carrier(21));
    ASSERT_FALSE(r.result.error);
    const auto view = r.result.content_view();
    const auto doc = nlohmann::ordered_json::parse(view.begin(), view.end());
    std::vector<std::string> keys;
    for (const auto & [k, v] : doc.items())
    {
        keys.push_back(k);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"memory", "cpu_times", "disk_usage", "network", "node_id",
                                              "operating_system", "hardware_concurrency", "timestamp",
                                              "startup", "engine_version", "engine_build_date", "entries",
                                              "overall", "users"}));
    EXPECT_EQ(doc["node_id"], chord::to_string(id_of(200)));
    EXPECT_GT(doc["memory"]["physmem"]["total"].get<std::uint64_t>(), 0u);
    EXPECT_GT(doc["disk_usage"]["total"].get<std::uint64_t>(), 0u);
    EXPECT_FALSE(doc["operating_system"].get<std::string>().empty());
    // The ping and the unknown operation were counted before the status was taken.
    EXPECT_EQ(doc["overall"]["count"], 2);
    EXPECT_EQ(doc["overall"]["successes"], 1);
    EXPECT_EQ(doc["overall"]["failures"], 1);
    EXPECT_EQ(doc["network"]["listening_endpoint"], "127.0.0.1:7002");
}

TEST(format_time, writes_utc_with_milliseconds)
{
    using namespace std::chrono;
    EXPECT_EQ(format_time(system_clock::time_point(milliseconds(86'400'000 + 3'723'045))),
              "1970-01-02T01:02:03.045Z");
    EXPECT_EQ(format_time(system_clock::time_point{}), "1970-01-01T00:00:00.000Z");
}

TEST_F(processor_test, the_configuration_comes_as_json_sections_in_order_with_the_nodes_values)
{
    const auto & r = ask_for<protocol::result>(chord::chord_request_config{});
    ASSERT_FALSE(r.error);
    const auto view = r.content_view();
    const auto doc = nlohmann::ordered_json::parse(view.begin(), view.end());
    std::vector<std::string> sections;
    for (const auto & group : {"global", "local"})
    {
        for (const auto & [k, v] : doc[group].items())
        {
            sections.push_back(k);
        }
    }
    EXPECT_EQ(sections, (std::vector<std::string>{"security", "cluster", "chord", "network", "logger",
                                                  "limiter", "user", "depot"}));
    EXPECT_EQ(doc["global"]["cluster"]["replication_factor"], 2);
    EXPECT_EQ(doc["global"]["security"]["enable_stop"], false);
    EXPECT_EQ(doc["local"]["chord"]["bootstrapping_peers"].size(), 2u);
    EXPECT_EQ(doc["local"]["depot"].begin().key(), "rocksdb");
}

TEST(topology_document, names_the_neighbours_and_the_center)
{
    const chord::arc a{member(id_of(1), 1), member(id_of(2), 2), member(id_of(3), 3)};
    const auto doc = topology_document(a);
    EXPECT_EQ(doc.begin().key(), "predecessor");
    EXPECT_EQ(doc["center"]["id"], chord::to_string(id_of(2)));
    EXPECT_EQ(doc["successor"]["endpoint"], "127.0.0.1:3");
}

} // namespace
} // namespace zlk::node

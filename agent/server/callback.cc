#include "agent/server/callback.h"

#include "agent/server/connection.h"
#include "agent/server/server.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

static constexpr size_t MAX_QUESTIONS = 100000; // waiting for one client

// ---- ending a question

// The question goes first: what is done with its answer may ask the next one.
static void end_first(server_t &server, callback_queue_t &queue, const callback_reply_t &reply)
{
    callback_question_t question = std::move(queue.questions.front());
    queue.questions.pop_front();
    if (question.done)
        question.done(server, reply);
}

static callback_reply_t unavailable(std::string text)
{
    return { CONFD_ERR_UNAVAILABLE, std::move(text), {} };
}

// ---- asking

static void send_first(connection_t &conn)
{
    callback_queue_t &queue = conn.callbacks;
    const callback_question_t &question = queue.questions.front();
    queue.last_id = queue.last_id == UINT32_MAX ? 1 : queue.last_id + 1;
    queue.asked++;
    queue.sent_ms = monotonic_ms();
    connection_send(conn, question.op, 0, queue.last_id, question.payload);
    auto ms = static_cast<long>(question.timeout_ms);
    timeval limit = { ms / 1000, ms % 1000 * 1000 };
    evtimer_add(queue.timeout.get(), &limit);
}

static std::string seconds_text(uint64_t ms)
{
    return std::to_string(ms / 1000) + "." + std::to_string(ms % 1000 / 100) + " s";
}

static void on_timeout(evutil_socket_t, short, void *arg) noexcept
{
    auto &conn = *static_cast<connection_t *>(arg);
    if (conn.callbacks.questions.empty())
        return;
    const callback_question_t &question = conn.callbacks.questions.front();
    connection_fail(conn, "has not answered " + question.what + " within " + seconds_text(question.timeout_ms));
}

// ---- urgent questions behind others

static bool can_be_overdue(const callback_question_t &question)
{
    return question.is_urgent && question.done && !question.behind.empty();
}

static double due_ms(const callback_question_t &question)
{
    return question.asked_ms + static_cast<double>(question.timeout_ms);
}

static void watch_overdue(connection_t &conn)
{
    if (!conn.callbacks.overdue)
        return;
    double next = INFINITY;
    for (const callback_question_t &question : conn.callbacks.questions)
        if (can_be_overdue(question))
            next = std::min(next, due_ms(question));
    if (std::isinf(next)) {
        evtimer_del(conn.callbacks.overdue.get());
        return;
    }
    auto ms = static_cast<long>(std::ceil(std::max(next - monotonic_ms(), 0.0)));
    timeval limit = { ms / 1000, ms % 1000 * 1000 };
    evtimer_add(conn.callbacks.overdue.get(), &limit);
}

static callback_reply_t overdue_reply(const connection_t &conn, const callback_question_t &question, bool is_sent)
{
    const std::string &busy = is_sent ? question.behind : conn.callbacks.questions.front().what;
    return unavailable(connection_title(conn) + (is_sent ? " was" : " is") + " busy with " + busy + "; " +
                       question.what + " has not been answered within " + seconds_text(question.timeout_ms) +
                       " of the asking");
}

// One that has been sent stays, as its answer is still to come; nobody wants to know then.
static void on_overdue(evutil_socket_t, short, void *arg) noexcept
{
    auto &conn = *static_cast<connection_t *>(arg);
    server_t &server = *conn.server;
    uint64_t serial = conn.serial;
    std::deque<callback_question_t> &questions = conn.callbacks.questions;
    std::vector<std::pair<callback_done_t, callback_reply_t>> ended;
    double now = monotonic_ms();
    for (size_t i = 0; i < questions.size(); i++)
        if (can_be_overdue(questions[i]) && due_ms(questions[i]) <= now) {
            callback_reply_t reply = overdue_reply(conn, questions[i], i == 0);
            ended.emplace_back(std::exchange(questions[i].done, nullptr), std::move(reply));
            questions[i].is_urgent = i == 0; // else marked as not to be sent
        }
    auto is_dropped = [](const callback_question_t &question) {
        return !question.is_urgent && !question.behind.empty();
    };
    questions.erase(std::remove_if(questions.begin(), questions.end(), is_dropped), questions.end());
    for (auto &[done, reply] : ended)
        done(server, reply);
    if (connection_t *still = server_find(server, serial))
        watch_overdue(*still);
}

// Whoever waits for the commit sees what holds it up.
static void note_busy(connection_t &conn, callback_question_t &question)
{
    if (!question.is_urgent)
        return;
    if (question.asked_ms == 0)
        question.asked_ms = monotonic_ms();
    if (conn.callbacks.questions.empty())
        return;
    question.behind = conn.callbacks.questions.front().what;
    commit_queue_tell_progress(*conn.server, question.what + ": waiting for " + connection_title(conn) +
                                                 ", which is busy with " + question.behind);
}

static bool make_timers(connection_t &conn)
{
    callback_queue_t &queue = conn.callbacks;
    if (!queue.timeout)
        queue.timeout.reset(evtimer_new(conn.server->base.get(), on_timeout, &conn));
    if (!queue.overdue)
        queue.overdue.reset(evtimer_new(conn.server->base.get(), on_overdue, &conn));
    return queue.timeout && queue.overdue;
}

void callback_ask(server_t &server, uint64_t connection, callback_question_t question)
{
    connection_t *conn = server_find(server, connection);
    if (!conn || !make_timers(*conn) || conn->callbacks.questions.size() >= MAX_QUESTIONS) {
        if (question.done)
            question.done(server, unavailable("nobody is there to answer " + question.what));
        return;
    }
    note_busy(*conn, question);
    conn->callbacks.questions.push_back(std::move(question));
    if (conn->callbacks.questions.size() == 1)
        send_first(*conn);
    else
        watch_overdue(*conn);
}

bool callback_withdraw(server_t &server, uint64_t connection, uint32_t ticket)
{
    connection_t *conn = server_find(server, connection);
    if (!conn || conn->callbacks.questions.size() < 2)
        return false;
    auto &questions = conn->callbacks.questions;
    auto gone = std::remove_if(questions.begin() + 1, questions.end(),
                               [&](const callback_question_t &question) { return question.ticket == ticket; });
    bool is_any = gone != questions.end();
    questions.erase(gone, questions.end());
    return is_any;
}

uint64_t callback_find_worker(server_t &server, uint64_t control, uint32_t worker_id)
{
    const connection_t *daemon = server_find(server, control);
    const connection_t *worker = server_find(server, worker_id);
    bool is_its_own = daemon && worker && worker->kind == WIRE_KIND_WORKER && worker->daemon_id == daemon->daemon_id;
    return is_its_own ? worker->serial : 0;
}

// ---- answers

static callback_reply_t reply_of(const wire_header_t &header, std::string_view payload)
{
    if (header.status == CONFD_ERR_OK)
        return { CONFD_ERR_OK, {}, payload };
    wire_reader_t in(payload);
    return { CONFD_ERR_EXTERNAL, std::string(in.text()), {} };
}

bool callback_take_answer(connection_t &conn, const wire_header_t &header, std::string_view payload)
{
    callback_queue_t &queue = conn.callbacks;
    if (queue.questions.empty() || header.op != (queue.questions.front().op | WIRE_REPLY) || header.id != queue.last_id)
        return false;
    evtimer_del(queue.timeout.get());
    server_t &server = *conn.server;
    uint64_t serial = conn.serial;
    bool is_more = queue.questions.size() > 1;
    end_first(server, queue, reply_of(header, payload));
    // A question that the asker has added to an empty queue has been sent by callback_ask.
    connection_t *still = server_find(server, serial);
    if (still && is_more)
        send_first(*still);
    return true;
}

void callback_forget(server_t &server, connection_t &conn)
{
    callback_queue_t queue = std::move(conn.callbacks);
    conn.callbacks = {};
    std::string why = conn.failure.empty() ? "has disconnected" : conn.failure;
    while (!queue.questions.empty()) {
        const std::string &what = queue.questions.front().what;
        std::string text = connection_title(conn) + " " + why;
        if (why.find(what) == std::string::npos)
            text += "; it was asked for " + what;
        end_first(server, queue, unavailable(std::move(text)));
    }
}

void callback_refuse_answer(server_t &server, uint64_t connection, const std::string &why)
{
    if (connection_t *conn = server_find(server, connection))
        connection_fail(*conn, why);
}

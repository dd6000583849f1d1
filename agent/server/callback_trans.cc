#include "agent/server/callback_trans.h"

#include "agent/server/server.h"

#include <algorithm>

static constexpr size_t NO_PARTY = SIZE_MAX;

callback_trans_ref callback_trans_make(uint32_t th, uint8_t db, bool is_writable, const session_identity_t &who)
{
    auto trans = std::make_shared<callback_trans_t>();
    trans->th = th;
    trans->db = db;
    trans->is_writable = is_writable;
    trans->who = who;
    return trans;
}

void callback_put_session(wire_writer_t &out, const session_identity_t &who)
{
    out.u32(who.id);
    out.text(who.user);
    out.text(who.context);
    out.text(who.source);
}

static size_t find_party(const callback_trans_t &trans, uint64_t control, bool is_validation)
{
    for (size_t i = 0; i < trans.parties.size(); i++)
        if (trans.parties[i].control == control && trans.parties[i].is_validation == is_validation)
            return i;
    return NO_PARTY;
}

static void end_all(server_t &server, std::vector<callback_question_t> &questions, const callback_reply_t &reply)
{
    for (callback_question_t &question : questions)
        if (question.done)
            question.done(server, reply);
}

// ---- the choice of a worker

// Everything that waits for the party's worker ends with the reply; the party is asked anew next time.
static void give_up_party(server_t &server, callback_trans_t &trans, size_t party, const callback_reply_t &reply)
{
    std::vector<callback_question_t> waiting = std::move(trans.parties[party].waiting);
    trans.parties.erase(trans.parties.begin() + static_cast<ptrdiff_t>(party));
    end_all(server, waiting, reply);
}

static void tell_end(server_t &server, const callback_trans_ref &trans, const callback_party_t &party);

static void take_worker(server_t &server, const callback_trans_ref &ref, uint64_t control, bool is_validation,
                        const callback_reply_t &reply)
{
    callback_trans_t &trans = *ref;
    wire_reader_t in(reply.payload); // empty when the init has failed
    uint64_t worker = callback_find_worker(server, control, in.u32());
    size_t at = find_party(trans, control, is_validation);
    if (at == NO_PARTY) // has ended meanwhile, which a daemon that knows of it has to hear
        return tell_end(server, ref, { control, worker, is_validation, {} });
    if (reply.code != CONFD_ERR_OK)
        return give_up_party(server, trans, at, reply);
    if (worker == 0) {
        callback_reply_t refusal = { CONFD_ERR_UNAVAILABLE, "the daemon's init callback has chosen no worker", {} };
        return give_up_party(server, trans, at, refusal);
    }
    trans.parties[at].worker = worker;
    std::vector<callback_question_t> waiting = std::move(trans.parties[at].waiting);
    for (callback_question_t &question : waiting)
        callback_ask(server, worker, std::move(question));
}

static void ask_for_worker(server_t &server, const callback_trans_ref &trans, uint64_t control, bool is_validation,
                           bool is_urgent)
{
    wire_writer_t payload;
    payload.u32(trans->th);
    payload.u8(trans->db);
    payload.u8(trans->is_writable);
    callback_put_session(payload, trans->who);
    callback_question_t question;
    question.op = is_validation ? WIRE_CB_VALIDATE_INIT : WIRE_CB_TRANS_INIT;
    question.payload = std::move(payload.bytes);
    question.what = is_validation ? "the start of a validation" : "the start of a transaction";
    question.timeout_ms = server.config.callback_timeout_ms;
    question.is_urgent = is_urgent;
    question.done = [trans, control, is_validation](server_t &of, const callback_reply_t &reply) {
        take_worker(of, trans, control, is_validation, reply);
    };
    callback_ask(server, control, std::move(question));
}

// ---- asking

static bool is_stopping(const callback_trans_t &trans, uint64_t control)
{
    return std::ranges::count(trans.stopping, control) > 0;
}

// A daemon whose worker is gone may have another: it chooses again.
static void forget_lost_worker(server_t &server, callback_trans_t &trans, uint64_t control, bool is_validation)
{
    size_t at = find_party(trans, control, is_validation);
    if (at != NO_PARTY && trans.parties[at].worker != 0 && !server_find(server, trans.parties[at].worker))
        trans.parties.erase(trans.parties.begin() + static_cast<ptrdiff_t>(at));
}

void callback_trans_ask(server_t &server, const callback_trans_ref &trans, registration_kind_t kind,
                        const std::string &point, uint16_t op, std::string payload, std::string what,
                        callback_done_t done, bool is_urgent)
{
    if (trans->is_ended)
        return done(server, { CONFD_ERR_UNAVAILABLE, "the transaction has ended; nobody is asked for " + what, {} });
    const registration_t *row = registry_find(server.registry, kind, point);
    if (!row) {
        std::string text = std::string("no daemon has registered ") + registration_kind_name(kind) + " \"" + point +
                           "\"; it was wanted for " + what;
        return done(server, { CONFD_ERR_UNAVAILABLE, std::move(text), {} });
    }
    uint64_t control = row->connection;
    bool is_validation = kind == REGISTRATION_VALPOINT;
    forget_lost_worker(server, *trans, control, is_validation);
    size_t at = find_party(*trans, control, is_validation);
    bool is_new = at == NO_PARTY;
    if (is_new) {
        trans->parties.push_back({ control, 0, is_validation, {} });
        at = trans->parties.size() - 1;
    }
    callback_question_t question;
    question.op = op;
    question.payload = std::move(payload);
    question.what = std::move(what);
    question.timeout_ms = server.config.callback_timeout_ms;
    question.done = std::move(done);
    question.is_urgent = is_urgent;
    if (trans->parties[at].worker != 0)
        return callback_ask(server, trans->parties[at].worker, std::move(question));
    trans->parties[at].waiting.push_back(std::move(question));
    if (is_new && !(is_validation && is_stopping(*trans, control)))
        ask_for_worker(server, trans, control, is_validation, is_urgent);
}

uint64_t callback_trans_worker(const server_t &server, const callback_trans_t &trans, registration_kind_t kind,
                               const std::string &point)
{
    const registration_t *row = registry_find(server.registry, kind, point);
    size_t at = row ? find_party(trans, row->connection, kind == REGISTRATION_VALPOINT) : NO_PARTY;
    return at == NO_PARTY ? 0 : trans.parties[at].worker;
}

// ---- the end

// The daemon has heard of the end: a validation that has begun anew meanwhile may start.
static void end_stopping(server_t &server, const callback_trans_ref &trans, uint64_t control)
{
    std::erase(trans->stopping, control);
    size_t at = find_party(*trans, control, true);
    if (at != NO_PARTY && trans->parties[at].worker == 0)
        ask_for_worker(server, trans, control, true, trans->parties[at].waiting.front().is_urgent);
}

// The end is told on the worker, the start on the control connection, and a client may look at either first: the start
// of the next validation waits for the answer.
static void tell_end(server_t &server, const callback_trans_ref &trans, const callback_party_t &party)
{
    if (party.worker == 0)
        return;
    wire_writer_t payload;
    payload.u32(trans->th);
    callback_question_t question;
    question.op = party.is_validation ? WIRE_CB_VALIDATE_STOP : WIRE_CB_TRANS_FINISH;
    question.payload = std::move(payload.bytes);
    question.what = party.is_validation ? "the end of a validation" : "the end of a transaction";
    question.timeout_ms = server.config.callback_timeout_ms;
    if (party.is_validation) {
        trans->stopping.push_back(party.control);
        question.done = [trans, control = party.control](server_t &of, const callback_reply_t &) {
            end_stopping(of, trans, control);
        };
    }
    callback_ask(server, party.worker, std::move(question));
}

static void end_parties(server_t &server, const callback_trans_ref &ref, bool only_validation)
{
    callback_trans_t &trans = *ref;
    std::vector<callback_party_t> ended;
    for (callback_party_t &party : trans.parties)
        if (party.is_validation || !only_validation)
            ended.push_back(std::move(party));
    std::erase_if(trans.parties,
                  [&](const callback_party_t &party) { return party.is_validation || !only_validation; });
    for (callback_party_t &party : ended) {
        tell_end(server, ref, party);
        end_all(server, party.waiting, { CONFD_ERR_UNAVAILABLE, "the transaction has ended", {} });
    }
}

void callback_trans_finish(server_t &server, const callback_trans_ref &trans)
{
    if (!trans)
        return;
    trans->is_ended = true;
    end_parties(server, trans, false);
}

void callback_trans_stop_validation(server_t &server, const callback_trans_ref &trans)
{
    if (trans)
        end_parties(server, trans, true);
}

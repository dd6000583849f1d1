// What the crash test believes to be configured: an editor's VPNs, random changes of them, and their document as the
// agent would dump it.
//
// An editor has VPN numbers of its own, so that what several editors have in flight when the agent dies is old or new
// for each of them alone. A commit is first made on a copy of the model, together with the calls that make it in a
// transaction.
#ifndef TESTS_COMPONENT_AGENTD_CRASH_MODEL_H
#define TESTS_COMPONENT_AGENTD_CRASH_MODEL_H

#include "tests/component/agentd_clients.h"

#include <algorithm>
#include <map>
#include <optional>
#include <random>

struct crash_port_t {
    std::optional<uint32_t> speed;
    std::vector<std::string> tags; // in the user's order
};

struct crash_vpn_t {
    std::string name; // empty: none
    std::map<std::string, crash_port_t> ports;
    std::vector<std::pair<std::string, std::string>> rules; // name and action, in the user's order
};

using crash_part_t = std::map<int, crash_vpn_t>;

// ---- as a document

inline std::string crash_member(const std::string &name, const std::string &value)
{
    return "\"" + name + "\":" + value;
}

inline std::string crash_quoted(const std::string &text)
{
    return "\"" + text + "\"";
}

template <typename List, typename Print> std::string crash_array(const std::string &name, const List &list, Print print)
{
    std::string text;
    for (const auto &item : list)
        text += (text.empty() ? "" : ",") + print(item);
    return list.empty() ? "" : "," + crash_member(name, "[" + text + "]");
}

inline std::string crash_document(const crash_port_t &port)
{
    return (port.speed ? "," + crash_member("speed", std::to_string(*port.speed)) : "") +
           crash_array("tag", port.tags, crash_quoted);
}

inline std::string crash_document(int id, const crash_vpn_t &vpn)
{
    auto print_port = [](const auto &item) {
        return "{" + crash_member("name", crash_quoted(item.first)) + crash_document(item.second) + "}";
    };
    auto print_rule = [](const auto &item) {
        return "{" + crash_member("name", crash_quoted(item.first)) + "," +
               crash_member("action", crash_quoted(item.second)) + "}";
    };
    return "{" + crash_member("id", std::to_string(id)) +
           (vpn.name.empty() ? "" : "," + crash_member("name", crash_quoted(vpn.name))) +
           crash_array("port", vpn.ports, print_port) + crash_array("rule", vpn.rules, print_rule) + "}";
}

inline std::string crash_document(const crash_part_t &part)
{
    std::string text;
    for (const auto &[id, vpn] : part)
        text += (text.empty() ? "" : ",") + crash_document(id, vpn);
    return text;
}

// ---- random changes

class crash_edit
{
public:
    crash_edit(user_client &user, crash_part_t &part, int first_vpn, std::mt19937 &random)
        : user_(user), part_(part), first_vpn_(first_vpn), random_(random)
    {
    }

    // One commit's worth: a leaf, or up to some hundred entries. CONFD_OK or what the first failing call gave.
    int make()
    {
        int edits = below(3) ? 1 : 1 + below(8);
        for (int i = 0; i < edits && result_ == CONFD_OK; i++)
            one();
        return result_;
    }

private:
    static constexpr int VPNS = 4; // of an editor

    struct kind_t {
        int weight;
        void (crash_edit::*make)(int id, crash_vpn_t &vpn);
    };

    void note(int result)
    {
        if (result_ == CONFD_OK)
            result_ = result;
    }
    int below(int bound) { return static_cast<int>(random_() % static_cast<uint32_t>(bound)); }
    std::string word() { return "w" + std::to_string(random_()); }
    static std::string path(int id) { return "/net/vpn{" + std::to_string(id) + "}"; }

    void one()
    {
        static constexpr kind_t kinds[] = {
            { 4, &crash_edit::set_name },  { 3, &crash_edit::set_speed },      { 2, &crash_edit::set_tags },
            { 2, &crash_edit::del_port },  { 1, &crash_edit::add_many_ports }, { 3, &crash_edit::add_rule },
            { 3, &crash_edit::move_rule }, { 1, &crash_edit::del_rule },       { 1, &crash_edit::del_vpn },
        };
        int sum = 0, id = first_vpn_ + below(VPNS);
        for (const kind_t &kind : kinds)
            sum += kind.weight;
        int pick = below(sum);
        for (const kind_t &kind : kinds)
            if ((pick -= kind.weight) < 0)
                return (this->*kind.make)(id, part_[id]);
    }

    void set_name(int id, crash_vpn_t &vpn)
    {
        vpn.name = word();
        note(user_.set(path(id) + "/name", vpn.name));
    }

    void add_port(int id, crash_vpn_t &vpn)
    {
        char name[16];
        (void)snprintf(name, sizeof name, "p%04d", below(2000));
        uint32_t speed = static_cast<uint32_t>(random_());
        vpn.ports[name].speed = speed;
        note(user_.set(path(id) + "/port{" + name + "}/speed", std::to_string(speed)));
    }
    void set_speed(int id, crash_vpn_t &vpn) { add_port(id, vpn); }

    void add_many_ports(int id, crash_vpn_t &vpn)
    {
        for (int count = 20 + below(300); count > 0; count--)
            add_port(id, vpn);
    }

    void set_tags(int id, crash_vpn_t &vpn)
    {
        if (vpn.ports.empty())
            add_port(id, vpn);
        auto port = std::next(vpn.ports.begin(), below(static_cast<int>(vpn.ports.size())));
        std::vector<std::string> tags = { "a", "b", "c", "d", "e" };
        std::shuffle(tags.begin(), tags.end(), random_);
        tags.resize(static_cast<size_t>(1 + below(5)));
        std::vector<confd_value_t> values(tags.size());
        for (size_t i = 0; i < tags.size(); i++)
            CONFD_SET_BUF(&values[i], tags[i].data(), tags[i].size());
        confd_value_t list{};
        CONFD_SET_LIST(&list, values.data(), values.size());
        port->second.tags = tags;
        note(maapi_set_elem(user_.fd(), user_.th, &list, "%s/port{%s}/tag", path(id).c_str(), port->first.c_str()));
    }

    void del_port(int id, crash_vpn_t &vpn)
    {
        if (vpn.ports.empty())
            return set_name(id, vpn);
        auto port = std::next(vpn.ports.begin(), below(static_cast<int>(vpn.ports.size())));
        std::string name = port->first;
        vpn.ports.erase(port);
        note(user_.remove(path(id) + "/port{" + name + "}"));
    }

    void add_rule(int id, crash_vpn_t &vpn)
    {
        std::string name = "r" + std::to_string(below(40)), action = word();
        auto is_it = [&](const auto &rule) {
            return rule.first == name;
        };
        auto rule = std::find_if(vpn.rules.begin(), vpn.rules.end(), is_it);
        if (rule == vpn.rules.end())
            vpn.rules.emplace_back(name, action);
        else
            rule->second = action;
        note(user_.set(path(id) + "/rule{" + name + "}/action", action));
    }

    // To the front, to the end, or to another's side.
    void move_rule(int id, crash_vpn_t &vpn)
    {
        if (vpn.rules.size() < 2)
            return add_rule(id, vpn);
        size_t from = static_cast<size_t>(below(static_cast<int>(vpn.rules.size())));
        auto rule = vpn.rules[from];
        vpn.rules.erase(vpn.rules.begin() + static_cast<std::ptrdiff_t>(from));
        size_t other = static_cast<size_t>(below(static_cast<int>(vpn.rules.size())));
        auto where = static_cast<maapi_move_where>(MAAPI_MOVE_FIRST + below(4));
        std::string neighbour = vpn.rules[other].first;
        size_t to = where == MAAPI_MOVE_FIRST    ? 0
                    : where == MAAPI_MOVE_BEFORE ? other
                    : where == MAAPI_MOVE_AFTER  ? other + 1
                                                 : vpn.rules.size();
        vpn.rules.insert(vpn.rules.begin() + static_cast<std::ptrdiff_t>(to), rule);
        confd_value_t key{};
        CONFD_SET_BUF(&key, neighbour.data(), neighbour.size());
        bool has_neighbour = where == MAAPI_MOVE_BEFORE || where == MAAPI_MOVE_AFTER;
        note(maapi_move_ordered(user_.fd(), user_.th, where, has_neighbour ? &key : nullptr, has_neighbour,
                                "%s/rule{%s}", path(id).c_str(), rule.first.c_str()));
    }

    void del_rule(int id, crash_vpn_t &vpn)
    {
        if (vpn.rules.empty())
            return add_rule(id, vpn);
        auto rule = std::next(vpn.rules.begin(), below(static_cast<int>(vpn.rules.size())));
        std::string name = rule->first;
        vpn.rules.erase(rule);
        note(user_.remove(path(id) + "/rule{" + name + "}"));
    }

    void del_vpn(int id, crash_vpn_t &vpn)
    {
        if (vpn.name.empty())
            return set_name(id, vpn); // it may not exist
        part_.erase(id);
        note(user_.remove(path(id)));
    }

    user_client &user_;
    crash_part_t &part_;
    int first_vpn_;
    std::mt19937 &random_;
    int result_ = CONFD_OK;
};

#endif

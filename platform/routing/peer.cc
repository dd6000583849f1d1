#include "platform/routing/peer.h"

#include "common/tip_log.h"
#include "common/tip_root.h"
#include "platform/child.h"
#include "platform/routing/message_json.h"
#include "platform/routing/rtm_server.h"
#include "platform/run_files.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

namespace
{

constexpr uint32_t NOTIFY_RETRY_MS = 250;
constexpr off_t MAX_CONTROL = 256 << 10; // show answers in hexadecimal are long
constexpr int DEATH_STATUS = 1;

// ---- management

void answer_later_cb(evutil_socket_t, short, void *arg)
{
    auto *stream = static_cast<stream_t *>(arg);
    stream_send(stream, stream->pending);
    stream_release(stream);
}

void answer_later(peer_t *peer, stream_t *stream, const answer_t &answer)
{
    stream_hold(stream);
    if (answer.delay_ms == CONTROL_FOREVER)
        return;
    timeval delay = timeval_of_ms(answer.delay_ms);
    stream->pending = answer.bytes;
    stream->timer.reset(evtimer_new(peer->base.get(), answer_later_cb, stream));
    evtimer_add(stream->timer.get(), &delay);
}

void answer_give(peer_t *peer, stream_t *stream, const answer_t &answer)
{
    if (answer.is_death)
        _exit(DEATH_STATUS); // as in a crash: nothing is tidied up
    if (answer.is_close)
        stream_fail(stream);
    else if (answer.delay_ms != 0)
        answer_later(peer, stream, answer);
    else
        stream_send(stream, answer.bytes);
}

void mgmt_frame(void *arg, stream_t *stream, const frame_t &frame)
{
    auto *peer = static_cast<peer_t *>(arg);
    const message_row_t *row =
        frame.module == peer->settings.daemon->module ? message_row_find(frame.module, frame.type) : nullptr;
    message_ptr message;
    if (row != nullptr && row->kind != MESSAGE_CONTROL)
        message = message_unpack(*row, frame.body);
    if (!message) {
        tip_log("%s (VPN %lu): no message of module %u, type %u in %zu bytes, the connection is closed",
                peer->settings.daemon->name, peer->settings.vpn_id, frame.module, frame.type, frame.body.size());
        peer_log(*peer, "not-understood", frame.type, "{}");
        stream_fail(stream);
        return;
    }
    peer_log(*peer, row->descriptor->name, row->type, message_json(*message));
    peer_control_read(peer);
    answer_give(peer, stream, answer_make(peer->backend, peer->control, &peer->shows, *row, *message));
}

// ---- notification

void notify_connect(peer_t *peer);

void notify_timer_cb(evutil_socket_t, short, void *arg)
{
    notify_connect(static_cast<peer_t *>(arg));
}

void notify_retry(peer_t *peer)
{
    timeval delay = timeval_of_ms(NOTIFY_RETRY_MS);
    evtimer_add(peer->notify_timer.get(), &delay);
}

void notify_ended(void *arg, stream_t *)
{
    auto *peer = static_cast<peer_t *>(arg);
    peer->notify.reset();
    notify_retry(peer);
}

void notify_frame(void *, stream_t *, const frame_t &frame)
{
    tip_log("A frame of type %u on the notification socket is left aside", frame.type); // nothing is sent there
}

void notify_connect(peer_t *peer)
{
    unique_fd fd = stream_connect(vpn_path(peer->settings.daemon->notify_path, peer->settings.vpn_id));
    auto stream = std::make_unique<stream_t>();
    if (!fd.is_open() ||
        !stream_open(stream.get(), peer->base.get(), std::move(fd), notify_frame, notify_ended, peer)) {
        notify_retry(peer);
        return;
    }
    peer->notify = std::move(stream);
    peer_log(*peer, "notification-socket-up", 0, "{}");
}

// ---- start

bool log_open(peer_t *peer)
{
    std::string &path = peer->settings.log_path;
    std::string plain = std::string("/var/log/quagga/") + peer->settings.daemon->name + ".log";
    if (path.empty())
        path = vpn_path(plain.c_str(), peer->settings.vpn_id);
    peer->log.reset(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!peer->log.is_open())
        tip_log("Cannot write %s: %s; is its folder there?", path.c_str(), strerror(errno));
    return peer->log.is_open();
}

// The control socket comes first: once there is a management socket cfgmgr connects to both, and it tries the other but
// twice a second.
bool sockets_open(peer_t *peer)
{
    const peer_settings_t &settings = peer->settings;
    event_base *base = peer->base.get();
    bool is_up = settings.daemon->control_path == nullptr || rtm_server_start(peer);
    is_up = is_up && stream_server_start(&peer->mgmt, base, vpn_path(settings.daemon->mgmt_path, settings.vpn_id),
                                         mgmt_frame, peer);
    if (is_up)
        notify_connect(peer);
    return is_up;
}

void late_cb(evutil_socket_t, short, void *arg)
{
    auto *peer = static_cast<peer_t *>(arg);
    peer->is_broken = !sockets_open(peer);
    if (peer->is_broken)
        event_base_loopbreak(peer->base.get());
}

} // namespace

std::string vpn_path(const char *path, uint64_t vpn_id)
{
    return vpn_id == 0 ? tip_path("%s", path).text : tip_path("%s.%lu", path, vpn_id).text;
}

bool peer_start(peer_t *peer)
{
    peer->notify_timer.reset(evtimer_new(peer->base.get(), notify_timer_cb, peer));
    if (!peer->notify_timer || !log_open(peer))
        return false;
    peer_log(*peer, "start", 0, "{}");
    peer_control_read(peer);
    const control_line_t *late = control_find(peer->control, CONTROL_LATE, 0);
    if (late == nullptr)
        return sockets_open(peer);
    timeval delay = timeval_of_ms(late->number);
    peer->late_timer.reset(evtimer_new(peer->base.get(), late_cb, peer));
    return evtimer_add(peer->late_timer.get(), &delay) == 0;
}

void peer_stop(peer_t *peer)
{
    stream_server_stop(&peer->mgmt);
    stream_server_stop(&peer->rtm);
    peer->notify.reset();
    peer->kernel.event.reset();
}

void peer_notify_all(peer_t *peer)
{
    peer_control_read(peer);
    if (!peer->notify)
        tip_log("%s (VPN %lu): nobody listens to notifications", peer->settings.daemon->name, peer->settings.vpn_id);
    for (const control_line_t &line : peer->control) {
        if (line.word == CONTROL_NOTIFY)
            peer_notify(peer, line.text);
    }
}

void peer_notify(peer_t *peer, const std::string &body)
{
    const daemon_row_t &daemon = *peer->settings.daemon;
    std::string bytes = frame_bytes({ daemon.module, daemon.notify_type, daemon.notify_type, body });
    if (peer->notify && !bytes.empty())
        stream_send(peer->notify.get(), bytes);
}

void peer_log(const peer_t &peer, const char *type, int number, const std::string &object)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    char head[256];
    (void)snprintf(head, sizeof head, "{\"time\":%ld.%06ld,\"vpn\":%lu,\"daemon\":\"%s\",\"type\":\"%s\",\"number\":%d",
                   now.tv_sec, now.tv_nsec / 1000, peer.settings.vpn_id, peer.settings.daemon->name, type, number);
    std::string line = head + (",\"message\":" + object) + "}\n";
    if (write(peer.log.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        tip_log("Cannot write a line of %s: %s", peer.settings.log_path.c_str(), strerror(errno));
}

void peer_control_read(peer_t *peer)
{
    std::string plain = std::string(TIP_QUAGGA_RUN_DIR "/") + peer->settings.daemon->name + ".control";
    std::string path = vpn_path(plain.c_str(), peer->settings.vpn_id), text;
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && status.st_size <= MAX_CONTROL)
        text = file_text(path, static_cast<size_t>(status.st_size));
    if (text == peer->control_text)
        return;
    peer->control = control_parse(text);
    peer->control_text = std::move(text);
    peer->shows = 0;
}

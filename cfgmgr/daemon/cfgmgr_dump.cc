#include "cfgmgr/daemon/cfgmgr_dump.h"

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/daemon/cfgmgr_print.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "tconfd/tconfd_api.h"

#include <confd_maapi.h>
#include <string>

namespace
{

// The text is gathered and sent in pieces of this size: each is a question to the agent, which the main loop waits for.
constexpr size_t PIECE = 16384;

struct session_output_t {
    int maapi_fd;
    int session;
    std::string text;
};

void flush(session_output_t &output)
{
    if (!output.text.empty())
        (void)maapi_cli_printf(output.maapi_fd, output.session, "%s", output.text.c_str()); // the operator may be gone
    output.text.clear();
}

void write_to_session(void *arg, const char *text)
{
    auto &output = *static_cast<session_output_t *>(arg);
    output.text += text;
    if (output.text.size() >= PIECE)
        flush(output);
}

using table_dump_t = void (*)(cfgmgrd_t *cfgmgrd_p, const cfgmgr_printer_t &out);

int dump_to_session(const confd_user_info *uinfo, table_dump_t dump)
{
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    session_output_t output{ cfgmgrd_p->tconfd_ctx_p->maapi_fd, uinfo->usid, {} };
    dump(cfgmgrd_p, { write_to_session, &output });
    write_to_session(&output, "\n");
    flush(output);
    return CONFD_OK;
}

} // namespace

int cfgmgr_dump_vpn(confd_user_info *uinfo, char *, int, char **)
{
    return dump_to_session(uinfo, cfgmgr_dump_vpn_table);
}

int cfgmgr_dump_if(confd_user_info *uinfo, char *, int, char **)
{
    return dump_to_session(uinfo, cfgmgr_dump_if_table);
}

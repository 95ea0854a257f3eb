#include "pageroutes.h"

#include "failure.h"
#include "pages.h"
#include "transfercolumns.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace lofthaven::service {

PageRoutes::PageRoutes(ServiceContext &context)
    : m_context(context)
{}

void PageRoutes::addTo(Router &router)
{
    using B = Router::Body;
    const std::string id = Router::kId;
    router.add("GET", "/downloads/desktop.json", B::None, [this](Exchange &x) { manifest(x); });
    router.add("GET", "/d/" + id, B::None, [this](Exchange &x) { transferPageGet(x); });
    router.add("POST", "/d/" + id, B::Json, [this](Exchange &x) { transferPagePost(x); });
    router.add("GET", "/r/([^/]*)", B::None, [this](Exchange &x) { codePage(x); });
    router.add("GET", "/legal/(terms|privacy)", B::None, [](Exchange &x) {
        x.res.set_content(legalPage(x.match(1) == "terms"), "text/html; charset=utf-8");
    });
    router.add("GET", "/", B::None, [](Exchange &x) {
        x.res.set_content(messagePage("Lofthaven", "This is a Lofthaven service. Open a link you "
                                                   "were sent, or use the Lofthaven app."),
                          "text/html; charset=utf-8");
    });
}

void PageRoutes::manifest(Exchange &x)
{
    const fs::path file = fs::path(m_context.options().dataDir) / "desktop.json";
    std::ifstream in(file, std::ios::binary);
    if (in) {
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        x.res.set_content(text.substr(0, Exchange::kMaxJsonBody), "application/json");
        return;
    }
    sendJson(x.res,
             {{"version", "0.1.0"}, {"notes", "The desktop app that matches this service."}});
}

void PageRoutes::transferPageGet(Exchange &x)
{
    const auto row = m_context.transferRow(x.match(1));
    const bool gone = !row || Store::text((*row)[cState]) == "uploading";
    if (gone || Store::text((*row)[cState]) == "expired" ||
        Store::integer((*row)[cExpires]) <= m_context.now()) {
        x.res.status = gone ? 404 : 410;
        x.res.set_content(
            messagePage(gone ? "Not found" : "Expired",
                        gone ? "No transfer has this link." : "This transfer has expired."),
            "text/html; charset=utf-8");
        return;
    }
    const auto &r = *row;
    std::vector<PageFile> files;
    for (const auto &f :
         QJsonDocument::fromJson(QByteArray::fromStdString(Store::text(r[cFiles]))).array())
        files.push_back(
            {str(f.toObject().value("name").toString()), f.toObject().value("size").toInteger()});
    x.res.set_content(transferPage(Store::text(r[cId]), Store::text(r[cName]),
                                   Store::integer(r[cSize]), Store::optText(r[cTitle]).value_or(""),
                                   Store::optText(r[cMessage]).value_or(""), files,
                                   Store::integer(r[cExpires]),
                                   !std::holds_alternative<std::nullptr_t>(r[cPassword]), ""),
                      "text/html; charset=utf-8");
}

void PageRoutes::transferPagePost(Exchange &x)
{
    auto form = x.form();
    const std::string id = x.match(1);
    // The API's rules, then the browser gets the unlocked link.
    std::string token;
    try {
        token = m_context.unlock(id, form["password"]);
    } catch (const Failure &f) {
        x.res.status = f.status;
        if (f.retryAfter >= 0)
            x.res.set_header("Retry-After", std::to_string(f.retryAfter));
        x.res.set_content(messagePage("Can't download", f.message), "text/html; charset=utf-8");
        return;
    }
    x.res.set_redirect("/dl/" + id + "?t=" + token, 303);
}

void PageRoutes::codePage(Exchange &x)
{
    try {
        m_context.limitCodeLookup(x.req);
    } catch (const Failure &f) {
        x.res.status = f.status;
        x.res.set_header("Retry-After", std::to_string(f.retryAfter));
        x.res.set_content(messagePage("Slow down", f.message), "text/html; charset=utf-8");
        return;
    }
    const std::string code = x.match(1);
    const auto rows =
        m_context.store().query("SELECT id FROM transfers WHERE code = ? AND state = 'ready' "
                                "AND expires_at > ? ORDER BY expires_at DESC LIMIT 1",
                                {code, m_context.now()});
    if (rows.empty()) {
        x.res.status = 404;
        x.res.set_content(messagePage("Not found", "No active transfer uses this code."),
                          "text/html; charset=utf-8");
        return;
    }
    x.res.set_redirect("/d/" + Store::text(rows[0][0]), 302);
}

} // namespace lofthaven::service

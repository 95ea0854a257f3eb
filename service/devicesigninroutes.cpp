#include "devicesigninroutes.h"

#include "failure.h"
#include "pages.h"
#include "secrets.h"

namespace lofthaven::service {

namespace {

std::string upperCode(std::string code)
{
    std::string out;
    for (char c : code) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    }
    if (out.size() == 8)
        out.insert(4, "-");
    return out;
}

} // namespace

DeviceSignInRoutes::DeviceSignInRoutes(ServiceContext &context)
    : m_context(context)
{}

void DeviceSignInRoutes::addTo(Router &router)
{
    using B = Router::Body;
    router.add("POST", "/api/cli/login", B::Json, [this](Exchange &x) { cliLogin(x); });
    router.add("POST", "/api/cli/token", B::Json, [this](Exchange &x) { cliToken(x); });
    router.add("POST", "/api/cli/logout", B::Json, [this](Exchange &x) { cliLogout(x); });
    router.add("GET", "/device", B::None, [this](Exchange &x) { devicePageGet(x); });
    router.add("POST", "/device", B::Json, [this](Exchange &x) { devicePagePost(x); });
}

void DeviceSignInRoutes::cliLogin(Exchange &x)
{
    const auto body = x.json();
    std::string name = str(body.value("name").toString()).substr(0, 120);
    const std::string deviceCode = randomAlnum(40);
    std::string userCode;
    const int64_t t = m_context.now();
    const int64_t intervalMs = static_cast<int64_t>(m_context.options().deviceInterval * 1000);
    for (int attempt = 0;; ++attempt) {
        // No vowels or look-alikes: codes are read aloud and retyped.
        static const std::string alphabet = "BCDFGHJKLMNPQRSTVWXZ";
        const std::string raw = randomDigits(8);
        userCode.clear();
        for (char d : raw)
            userCode.push_back(alphabet[(d - '0') * 2 + (randomDigits(1)[0] - '0') % 2]);
        userCode.insert(4, "-");
        try {
            m_context.store().exec("DELETE FROM device_logins WHERE expires_at < ?",
                                   {t - 86400000});
            m_context.store().exec(
                "INSERT INTO device_logins (code_hash, user_code, name, created_at, "
                "expires_at, interval_ms, state) VALUES (?, ?, ?, ?, ?, ?, 'pending')",
                {sha256Hex(deviceCode), userCode, name, t,
                 t + m_context.options().deviceExpiresIn * 1000, intervalMs});
            break;
        } catch (const std::runtime_error &) {
            if (attempt > 20)
                throw;
        }
    }
    const std::string page = m_context.publicOrigin() + "/device";
    sendJson(x.res, {{"deviceCode", qs(deviceCode)},
                     {"userCode", qs(userCode)},
                     {"verifyUrl", qs(page)},
                     {"verifyUrlComplete", qs(page + "?code=" + userCode)},
                     {"interval", m_context.options().deviceInterval},
                     {"expiresIn", static_cast<qint64>(m_context.options().deviceExpiresIn)}});
}

void DeviceSignInRoutes::cliToken(Exchange &x)
{
    const auto body = x.json();
    const std::string deviceCode = str(body.value("deviceCode").toString());
    if (deviceCode.empty())
        fail(400, "invalid_request", "deviceCode is missing.");
    const int64_t t = m_context.now();
    const std::string hash = sha256Hex(deviceCode);
    // Decide and mark in one transaction, so one approval yields one token.
    auto answer = m_context.store().transaction([&]() -> std::pair<int, QJsonObject> {
        const auto rows =
            m_context.store().query("SELECT expires_at, interval_ms, last_poll, state, "
                                    "user_id, name FROM device_logins WHERE code_hash = ?",
                                    {hash});
        if (rows.empty())
            return {400, Failure{400, "invalid_grant", "Unknown sign-in code."}.body()};
        const auto &r = rows[0];
        const std::string state = Store::text(r[3]);
        if (state == "used")
            return {400,
                    Failure{400, "invalid_grant", "This sign-in code was already used."}.body()};
        if (Store::integer(r[0]) <= t)
            return {410, Failure{410, "expired_token", "The sign-in code expired."}.body()};
        if (state == "denied")
            return {403, Failure{403, "access_denied", "Sign-in was denied."}.body()};
        if (state == "approved") {
            const std::string token = randomAlnum(48);
            const std::string userId = Store::text(r[4]);
            m_context.store().exec("INSERT INTO sessions (token_hash, user_id, device, created_at) "
                                   "VALUES (?, ?, ?, ?)",
                                   {sha256Hex(token), userId, Store::text(r[5]), t});
            m_context.store().exec("UPDATE device_logins SET state = 'used' WHERE code_hash = ?",
                                   {hash});
            const auto u =
                m_context.store().query("SELECT id, email, name FROM users WHERE id = ?", {userId});
            Exchange::User user{Store::text(u.at(0)[0]), Store::text(u.at(0)[1]),
                                Store::text(u.at(0)[2])};
            return {200, QJsonObject{{"token", qs(token)},
                                     {"user", ServiceContext::userJson(user)},
                                     {"plans", m_context.plans()},
                                     {"limits", m_context.limitsFor(true)}}};
        }
        const int64_t interval = Store::integer(r[1]);
        const int64_t last =
            std::holds_alternative<std::nullptr_t>(r[2]) ? 0 : Store::integer(r[2]);
        m_context.store().exec("UPDATE device_logins SET last_poll = ? WHERE code_hash = ?",
                               {t, hash});
        if (last > 0 && t - last < interval) {
            // Each early poll stretches the interval by 5 s, as the client does.
            m_context.store().exec("UPDATE device_logins SET interval_ms = interval_ms + 5000 "
                                   "WHERE code_hash = ?",
                                   {hash});
            return {429, Failure{429, "slow_down", "Polling too fast; wait longer."}.body()};
        }
        return {
            428,
            Failure{428, "authorization_pending", "Waiting for approval in the browser."}.body()};
    });
    sendJson(x.res, answer.second, answer.first);
}

void DeviceSignInRoutes::cliLogout(Exchange &x)
{
    if (!x.user)
        fail(401, "unauthorized", "Not signed in.");
    const std::string auth = x.header("Authorization");
    m_context.store().exec("UPDATE sessions SET revoked = 1 WHERE token_hash = ?",
                           {sha256Hex(auth.substr(7))});
    sendJson(x.res, {{"ok", true}});
}

void DeviceSignInRoutes::decide(const std::string &userCodeIn, const std::string &emailIn,
                                bool approve)
{
    const std::string userCode = upperCode(userCodeIn);
    const auto rows = m_context.store().query(
        "SELECT state, expires_at FROM device_logins WHERE user_code = ?", {userCode});
    if (rows.empty())
        fail(404, "not_found", "No sign-in is waiting for code " + userCode + ".");
    if (Store::integer(rows[0][1]) <= m_context.now())
        fail(410, "expired_token", "This sign-in code expired. Start again in the app.");
    if (Store::text(rows[0][0]) != "pending")
        fail(409, "already_decided", "This sign-in code was already used.");
    if (!approve) {
        m_context.store().exec("UPDATE device_logins SET state = 'denied' WHERE user_code = ?",
                               {userCode});
        return;
    }
    std::string email;
    for (char ch : emailIn)
        email.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(ch))));
    while (!email.empty() && std::isspace(static_cast<unsigned char>(email.back())))
        email.pop_back();
    while (!email.empty() && std::isspace(static_cast<unsigned char>(email.front())))
        email.erase(email.begin());
    const auto at = email.find('@');
    if (at == std::string::npos || at == 0 || at + 1 >= email.size() || email.size() > 254)
        fail(400, "bad_request", "Enter a valid e-mail address to approve.");
    m_context.store().transaction([&] {
        auto u = m_context.store().query("SELECT id FROM users WHERE email = ?", {email});
        std::string userId;
        if (u.empty()) {
            userId = randomAlnum(16);
            m_context.store().exec(
                "INSERT INTO users (id, email, name, created_at) VALUES (?, ?, ?, ?)",
                {userId, email, email.substr(0, at), m_context.now()});
        } else {
            userId = Store::text(u[0][0]);
        }
        m_context.store().exec(
            "UPDATE device_logins SET state = 'approved', user_id = ? WHERE user_code = ?",
            {userId, userCode});
    });
}

void DeviceSignInRoutes::devicePageGet(Exchange &x)
{
    x.res.set_content(devicePage(upperCode(x.req.get_param_value("code")), ""),
                      "text/html; charset=utf-8");
}

void DeviceSignInRoutes::devicePagePost(Exchange &x)
{
    auto form = x.form();
    const bool approve = form["action"] != "deny";
    try {
        decide(form["code"], form["email"], approve);
    } catch (const Failure &f) {
        x.res.status = f.status;
        x.res.set_content(devicePage(upperCode(form["code"]), f.message),
                          "text/html; charset=utf-8");
        return;
    }
    x.res.set_content(deviceDonePage(approve), "text/html; charset=utf-8");
}

} // namespace lofthaven::service

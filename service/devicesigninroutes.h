#pragma once

#include "router.h"
#include "servicecontext.h"

namespace lofthaven::service {

// Signing in a device: the app asks for a code (cli/login), the user approves
// it on the /device page in a browser, the app polls for its token
// (cli/token); and signing out.
class DeviceSignInRoutes
{
public:
    explicit DeviceSignInRoutes(ServiceContext &context);
    void addTo(Router &router);
    // Approves or denies a waiting sign-in, as the browser page does (a Failure
    // when the code is unknown, expired, decided, or the address is not valid).
    void decide(const std::string &userCode, const std::string &email, bool approve);

private:
    void cliLogin(Exchange &x);
    void cliToken(Exchange &x);
    void cliLogout(Exchange &x);
    void devicePageGet(Exchange &x);
    void devicePagePost(Exchange &x);

    ServiceContext &m_context;
};

} // namespace lofthaven::service

#include "backend/BackendConstants.h"
#include "service/LogFile.h"
#include "service/MacVpnServiceServer.h"
#include "service/ResourceLimits.h"
#include "service/ServiceSignals.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Tarvex"));
    QCoreApplication::setOrganizationDomain(OrganizationDomain);
    QCoreApplication::setApplicationName(QStringLiteral("TarvexVpnService"));

    // Installed before the server exists, so a stop request during start-up
    // still ends in an orderly way once the event loop runs.
    ServiceSignals serviceSignals;
    QObject::connect(&serviceSignals, &ServiceSignals::stopRequested, &app,
                     &QCoreApplication::quit);
    LogFile log;
    QObject::connect(&serviceSignals, &ServiceSignals::logRotated, &app, [&log] { log.reopen(); });

    ResourceLimits::raiseDescriptorLimit();
    MacVpnServiceServer server;
    if (!server.start())
        return 1;
    return app.exec();
}

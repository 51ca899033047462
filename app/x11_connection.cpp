#ifdef PLINKORA_HAVE_XCB
#include "app/x11_connection.h"

#include <QGuiApplication>

namespace plinkora {

xcb_connection_t* qtX11Connection()
{
    const auto* application = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    if (!application || QGuiApplication::platformName() != QLatin1String("xcb"))
        return nullptr;
    const auto* x11 = application->nativeInterface<QNativeInterface::QX11Application>();
    return x11 ? x11->connection() : nullptr;
}

} // namespace plinkora
#endif

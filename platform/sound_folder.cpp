#include "platform/sound_folder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace plinkora {

namespace {

const QString kProbeFile = QStringLiteral("up.wav");

} // namespace

QString executableFolder()
{
    if (QCoreApplication::instance() != nullptr)
        return QCoreApplication::applicationDirPath();
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath().section(QLatin1Char('/'), 0, -2);
}

std::optional<std::string> findSoundFolder(const std::optional<QString>& environmentValue,
                                           const QString& executableFolder)
{
    if (environmentValue)
        return environmentValue->toStdString();
    const QDir executable(executableFolder);
    const QString installed = QDir::cleanPath(executable.filePath(QStringLiteral("../share/plinkora")));
    if (QFileInfo::exists(QDir(installed).filePath(kProbeFile)))
        return installed.toStdString();
    if (QFileInfo::exists(executable.filePath(kProbeFile)))
        return QDir::cleanPath(executable.path()).toStdString();
    return std::nullopt;
}

std::optional<std::string> soundFolder()
{
    std::optional<QString> environmentValue;
    if (!qEnvironmentVariableIsEmpty("PLINKORA_RESOURCE_DIR"))
        environmentValue = qEnvironmentVariable("PLINKORA_RESOURCE_DIR");
    return findSoundFolder(environmentValue, executableFolder());
}

} // namespace plinkora

#include "DriverLibrary.h"

#include "QtNote.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QStringList>

#include <dlfcn.h>

namespace micro850::host {

namespace {

const char kFileName[] = "libmicro850.so";
// The name that is installed without development files.
const char kVersionedName[] = "libmicro850.so." MICRO850_SOVERSION;

// Beside the program, then in the library directory of the same installation.
QStringList installedPlaces()
{
    const QDir programs(QCoreApplication::applicationDirPath());
    QStringList places;
    for (const char* directory : {".", MICRO850_LIBDIR_FROM_BINDIR}) {
        for (const char* name : {kVersionedName, kFileName})
            places += QDir::cleanPath(
                programs.filePath(QString::fromLatin1(directory) + '/' + QLatin1String(name)));
    }
    return places;
}

// The file that an entry point was loaded from.
QString fileOf(decltype(DriverApi::setComInfo) entry)
{
    Dl_info info;
    return dladdr(reinterpret_cast<void*>(entry), &info) != 0 ? QFile::decodeName(info.dli_fname)
                                                              : QString();
}

// Strings and lists cross the interface, and another Qt lays them out in another way.
void refuseOtherQt(const QString& file, int major)
{
    if (major == QT_VERSION_MAJOR)
        return;
    const std::string ours = std::to_string(QT_VERSION_MAJOR);
    const std::string theirs = major == 0 ? "it does not say which Qt it is built for"
                                          : "it is built for Qt " + std::to_string(major);
    throw UserError(file.toStdString() + ": " + theirs + ", this host for Qt " + ours +
                    " (give a driver built with -DMICRO850_QT=" + ours + ")");
}

} // namespace

DriverLibrary::DriverLibrary(const QString& path)
{
    load(path);
    resolveAll();
    const QString file = fileOf(m_api.setComInfo);
    refuseOtherQt(file, qtMajorOf(file));
}

DriverLibrary::~DriverLibrary()
{
    m_library.unload();
}

void DriverLibrary::load(const QString& path)
{
    QString file = path;
    if (file.isEmpty()) {
        file = QString::fromLatin1(kFileName); // the loader finds it
        for (const QString& place : installedPlaces()) {
            if (QFileInfo::exists(place)) {
                file = place;
                break;
            }
        }
    } else if (!QFileInfo(file).isFile()) {
        throw UserError(file.toStdString() +
                        ": there is no such driver library (give its path with --driver)");
    }
    // Checked before any code of it runs. A file without the note may not be a driver at all.
    if (const int major = qtMajorOf(file))
        refuseOtherQt(file, major);
    m_library.setFileName(file);
    if (!m_library.load()) {
        throw UserError(file.toStdString() + ": the driver cannot be loaded: " +
                        m_library.errorString().toStdString() + " (give its path with --driver)");
    }
}

template<typename Function> void DriverLibrary::resolve(Function& function, const char* name)
{
    function = reinterpret_cast<Function>(m_library.resolve(name));
    if (!function) {
        const std::string file = m_library.fileName().toStdString();
        m_library.unload();
        throw UserError(file + ": lacks the entry point " + name +
                        " (is it this driver's libmicro850.so?)");
    }
}

void DriverLibrary::resolveAll()
{
    resolve(m_api.setComInfo, "SetComInfo");
    resolve(m_api.registerCallbacks, "RegistCallBackFuncIntf");
    resolve(m_api.flashLocalRegister, "FlashLocalRegister");
    resolve(m_api.enableStation, "EnCommStation");
    resolve(m_api.queryFinishFlag, "QueryFinishFlag");
    resolve(m_api.addressChange, "PLCAddressChangeIntef");
    resolve(m_api.passVarName, "PassVarName");
    resolve(m_api.recreateReadList, "ReCreatReadVarList");
    resolve(m_api.addRead, "AddListReadVar");
    resolve(m_api.addWrite, "AddListWriteVar");
    resolve(m_api.addOneShotRead, "AddListOnceReadVar");
    resolve(m_api.getRegisterData, "GetRegisterData");
    resolve(m_api.setRegisterData, "SetRegisterData");
    resolve(m_api.comCommunication, "ComCommunication");
    resolve(m_api.dataCom, "DataCom");
}

} // namespace micro850::host

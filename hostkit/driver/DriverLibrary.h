#ifndef MICRO850_HOST_DRIVERLIBRARY_H
#define MICRO850_HOST_DRIVERLIBRARY_H

#include "Device_Driver.h"
#include "Func_GetOrSetData.h"
#include "Func_Initi.h"

#include <QtCore/QLibrary>

namespace micro850::host {

/// The driver's entry points, typed as its headers declare them. The host is not linked to the
/// driver: they are found by name when it is loaded.
struct DriverApi
{
    decltype(&::SetComInfo) setComInfo = nullptr;
    decltype(&::RegistCallBackFuncIntf) registerCallbacks = nullptr;
    decltype(&::FlashLocalRegister) flashLocalRegister = nullptr;
    decltype(&::EnCommStation) enableStation = nullptr;
    decltype(&::QueryFinishFlag) queryFinishFlag = nullptr;
    decltype(&::PLCAddressChangeIntef) addressChange = nullptr;
    decltype(&::PassVarName) passVarName = nullptr;
    decltype(&::ReCreatReadVarList) recreateReadList = nullptr;
    decltype(&::AddListReadVar) addRead = nullptr;
    decltype(&::AddListWriteVar) addWrite = nullptr;
    decltype(&::AddListOnceReadVar) addOneShotRead = nullptr;
    decltype(&::GetRegisterData) getRegisterData = nullptr;
    decltype(&::SetRegisterData) setRegisterData = nullptr;
    decltype(&::ComCommunication) comCommunication = nullptr;
    decltype(&::DataCom) dataCom = nullptr;
};

/// The driver, loaded while this object lives. Only one object at a time: the driver has one state
/// for the whole process.
class DriverLibrary
{
public:
    /// Loads the library at `path`. An empty path means the places where it can be installed:
    /// beside the program, in the library directory beside that of the program, on the loader's
    /// path. Throws UserError when it is built for another Qt, cannot be loaded or lacks an entry
    /// point.
    explicit DriverLibrary(const QString& path);
    ~DriverLibrary();
    DriverLibrary(const DriverLibrary&) = delete;
    DriverLibrary& operator=(const DriverLibrary&) = delete;

    const DriverApi& api() const { return m_api; }
    QString fileName() const { return m_library.fileName(); }

private:
    void load(const QString& path);
    void resolveAll();
    template<typename Function> void resolve(Function& function, const char* name);

    QLibrary m_library;
    DriverApi m_api;
};

} // namespace micro850::host

#endif

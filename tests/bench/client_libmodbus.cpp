// client_libmodbus DEVICE BAUD REGISTERS READS: reads holding registers through libmodbus.

#include "client.h"

#include <cerrno>
#include <cstdint>
#include <modbus.h>
#include <vector>

int main(int argc, char** argv)
{
    const Task task = taskFrom(argc, argv);
    modbus_t* const port = modbus_new_rtu(task.device, task.baud, 'N', 8, 1);
    if (!port || modbus_set_slave(port, 1) != 0 || modbus_connect(port) != 0) {
        std::fprintf(stderr, "client_libmodbus: %s: %s\n", task.device, modbus_strerror(errno));
        return 2;
    }
    std::vector<std::uint16_t> values(static_cast<std::size_t>(task.values));
    Stopwatch watch;
    for (int i = 0; i <= task.reads; ++i) {
        if (i == 1)
            watch.start();
        if (modbus_read_registers(port, 0, task.values, values.data()) != task.values) {
            std::fprintf(stderr, "client_libmodbus: %s\n", modbus_strerror(errno));
            return 1;
        }
    }
    watch.report(task.reads);
    modbus_close(port);
    modbus_free(port);
    return 0;
}

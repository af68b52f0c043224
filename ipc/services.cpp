#include "ipc/services.h"

#include <algorithm>
#include <string_view>

#include "zel/ipc.h"

namespace zel::ipc {
namespace {

#define SERVICE(number, name, instances, flags, extra) ServiceRow{number, name, instances, flags, extra},
constexpr std::array<ServiceRow, serviceCount> table = {{
#include "ipc/services.inc"
}};
#undef SERVICE

constexpr bool isDenseAndOrdered() {
    for (std::size_t i = 0; i < table.size(); ++i)
        if (table[i].number != i) return false;
    return true;
}

constexpr bool namesAreUnique() {
    std::array<std::string_view, serviceCount> names;
    std::size_t count = 0;
    for (const ServiceRow &row : table)
        if (row.name) names[count++] = row.name;
    std::sort(names.begin(), names.begin() + count);
    return std::adjacent_find(names.begin(), names.begin() + count) == names.begin() + count;
}

constexpr bool hasInstances(const ServiceRow &row) {
    return (row.name != nullptr) == (row.instances > 0) && row.instances + row.extraInstances <= instanceCount;
}

static_assert(isDenseAndOrdered());
static_assert(namesAreUnique());
static_assert(std::all_of(table.begin(), table.end(), hasInstances));
static_assert(std::count_if(table.begin(), table.end(), [](const ServiceRow &row) { return row.name; }) == 343);

}  // namespace

constinit const std::array<ServiceRow, serviceCount> services = table;

int scannedInstances(int service) {
    if (service < 0 || service >= serviceCount) return 0;
    const ServiceRow &row = services[static_cast<std::size_t>(service)];
    return static_cast<int>(row.instances + row.extraInstances);
}

}  // namespace zel::ipc

int maxService() {
    return zel::ipc::serviceCount;
}

const char *zelTaskGetServiceName(int service) {
    if (service < 0 || service >= zel::ipc::serviceCount) return "Unknown";
    const char *name = zel::ipc::services[static_cast<std::size_t>(service)].name;
    return name ? name : "Unknown";
}

#include "core/analysis.h"

#include <string>

namespace
{

constexpr const char *mark_yes = "\e[32myes\e[0m";
constexpr const char *mark_no = "\e[31mno\e[0m";

void hyphens(FILE *out, int n)
{
    fprintf(out, "%s\n", std::string(n, '-').c_str());
}

// Names every step up the inheritance chain where the function of the action
// changes, e.g. "Quectel EC25 AT -> Quectel AT".
void override_chain(const modem_driver_registry &registry, const modem_driver *driver, unsigned action, char *buf,
                    size_t size)
{
    size_t used = 0;
    buf[0] = '\0';
    const modem_driver *previous = driver;
    const modem_driver *current = registry.by_id(driver->parent);
    while (current) {
        if (current->funcs[action] && current->funcs[action] != previous->funcs[action] && used < size) {
            int n = used == 0 ? snprintf(buf, size, "%s -> %s", previous->name, current->name)
                              : snprintf(buf + used, size - used, "-> %s", current->name);
            used += n > 0 ? static_cast<size_t>(n) : 0;
        }
        if (!current->parent)
            break;
        previous = current;
        current = registry.by_id(current->parent);
    }
}

} // namespace

void analysis_run(const modem_driver_registry &registry, FILE *out)
{
    fprintf(out, "Running driver analysis...\n");
    fprintf(out, "Total registered drivers: %u\n\n", registry.get_num());

    fprintf(out, "%-4s %-25s %-20s %-15s\n", "#", "Name", "Compatible", "Overrides");
    hyphens(out, 62);
    unsigned row = 1;
    for (modem_driver *const *d = registry.get_all(); *d; d++, row++)
        fprintf(out, "%-4u %-25s %-20s %-15s\n", row, (*d)->name, (*d)->compatible,
                (*d)->parent ? (*d)->parent : "none");
    hyphens(out, 62);
    fprintf(out, "\nListing methods...\n\n");

    char chain[512];
    for (modem_driver *const *d = registry.get_all(); *d; d++) {
        const modem_driver *driver = *d;
        fprintf(out, "\nMethods on %s driver:\n", driver->name);
        fprintf(out, "%-4s %-35s %-11s %-15s\n", "#", "Name", "Supported", "Override chain");
        hyphens(out, 67);
        for (unsigned i = 0; i < __ACT_TYPE_MAX; i++) {
            // The raw AT command is always available, whatever the table says.
            if (!driver->funcs[i] && i != ACT_AT_COMMAND) {
                fprintf(out, "%-4u %-35s %-20s %-15s\n", i + 1, act_type_id_str[i], mark_no, "--");
                continue;
            }
            chain[0] = '\0';
            if (driver->funcs[i] && driver->parent)
                override_chain(registry, driver, i, chain, sizeof(chain));
            fprintf(out, "%-4u %-35s %-20s %-15s\n", i + 1, act_type_id_str[i], mark_yes, chain[0] ? chain : "--");
        }
    }
    fflush(out);
}

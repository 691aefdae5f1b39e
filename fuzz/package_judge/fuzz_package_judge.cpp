// Feeds arbitrary bytes to the package judge as a package file, and the
// result to both reports. Whatever the bytes, a package that passes installs
// only names the card can hold, and an st.bin the microcontroller can take.
#include "lib/package_report.h"

#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int fd = memfd_create("package", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size))
        abort();
    pack_report report;
    std::string err;
    pack_verify_fd(fd, &report, &err);
    close(fd);
    if (!pack_refused(report))
        for (const pack_artifact &a : report.judgement.artifacts)
            if (!pack_name_problem(a.name).empty() ||
                (pack_fold_case(a.name) == MCU_IMAGE_ARTIFACT &&
                 (a.size == 0 || static_cast<uint64_t>(a.size) > MCU_APP_AREA_SIZE)))
                abort();
    FILE *sink = fopen("/dev/null", "w");
    pack_report_text(sink, "package", report);
    fclose(sink);
    pack_report_json(report).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return 0;
}

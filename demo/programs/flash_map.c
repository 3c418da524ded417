/* SPDX-License-Identifier: MIT */
#include "flash_map.h"

#include <unistd.h>

/* A line of the kernel's list or, where the flash is simulated by files, of theirs. */
static bool read_partition(const char *line, bool is_kernels, partition *found) {
    return (is_kernels ? sscanf(line, "mtd%u: %x %*x \"%31[^\"]\"", &found->number, &found->size,
                                found->name)
                       : sscanf(line, "mtdblock%u 0x%x %31s", &found->number, &found->size,
                                found->name)) == 3;
}

size_t read_partitions(partition partitions[most_partitions]) {
    const bool is_kernels = access("/dev/mtd0", F_OK) == 0;
    FILE *file = fopen(is_kernels ? "/proc/mtd" : "/etc/mtd", "r");
    char line[line_size];
    size_t count = 0;
    while (file && count < most_partitions && fgets(line, sizeof line, file))
        count += read_partition(line, is_kernels, &partitions[count]);
    if (file)
        fclose(file);
    return count;
}

/* A set consists of the partitions that the signatures of its sections select. */
int set_of_partition(unsigned number) {
    static const struct {
        const char *signature;
        int set;
    } sections[] = {{"root", CORVEL_FIRMWARE_A},
                    {"kern", CORVEL_FIRMWARE_A},
                    {"rfs1", CORVEL_FIRMWARE_B},
                    {"knl1", CORVEL_FIRMWARE_B}};
    for (size_t i = 0; i < sizeof sections / sizeof *sections; i++) {
        const uint32_t row = get_tbl_id((const unsigned char *)sections[i].signature);
        if (get_tbl_ids(row) == (int)number)
            return sections[i].set;
    }
    return CORVEL_FIRMWARE_UNKNOWN;
}

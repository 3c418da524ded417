/* SPDX-License-Identifier: MIT */
/**
 * @file flash_map.h
 * @brief The partitions of the flash.
 */
#ifndef FLASH_MAP_H
#define FLASH_MAP_H

#include "firmware.h"

enum { most_partitions = 16 };

typedef struct partition {
    unsigned number; /**< Of the block device. */
    unsigned size;   /**< In bytes. */
    char name[32];
} partition;

/** Reads the list of partitions, at most most_partitions. Returns their number. */
size_t read_partitions(partition partitions[most_partitions]);

/** Returns the set that a partition belongs to; CORVEL_FIRMWARE_UNKNOWN for one of no set. */
int set_of_partition(unsigned number);

#endif

/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "time_zone.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

const time_zone time_zones[time_zone_count] = {
    {"UTC0", "UTC"},
    {"HST10", "Honolulu"},
    {"AKST9AKDT,M3.2.0,M11.1.0", "Anchorage"},
    {"PST8PDT,M3.2.0,M11.1.0", "Los Angeles, Vancouver"},
    {"MST7", "Phoenix"},
    {"MST7MDT,M3.2.0,M11.1.0", "Denver, Edmonton"},
    {"CST6", "Mexico City, Guatemala"},
    {"CST6CDT,M3.2.0,M11.1.0", "Chicago, Winnipeg"},
    {"<-05>5", "Bogotá, Lima"},
    {"EST5EDT,M3.2.0,M11.1.0", "New York, Toronto"},
    {"AST4ADT,M3.2.0,M11.1.0", "Halifax, Bermuda"},
    {"<-03>3", "São Paulo, Buenos Aires"},
    {"GMT0BST,M3.5.0/1,M10.5.0", "London, Lisbon"},
    {"CET-1CEST,M3.5.0,M10.5.0/3", "Berlin, Paris, Zurich"},
    {"EET-2EEST,M3.5.0/3,M10.5.0/4", "Athens, Helsinki, Kyiv"},
    {"SAST-2", "Johannesburg"},
    {"<+03>-3", "Istanbul, Nairobi"},
    {"<+04>-4", "Dubai, Tbilisi"},
    {"<+05>-5", "Karachi, Tashkent"},
    {"IST-5:30", "Delhi, Colombo"},
    {"<+06>-6", "Dhaka"},
    {"<+07>-7", "Bangkok, Jakarta"},
    {"<+08>-8", "Shanghai, Singapore, Perth"},
    {"JST-9", "Tokyo, Seoul"},
    {"ACST-9:30ACDT,M10.1.0,M4.1.0/3", "Adelaide"},
    {"AEST-10", "Brisbane"},
    {"AEST-10AEDT,M10.1.0,M4.1.0/3", "Melbourne, Sydney"},
    {"NZST-12NZDT,M9.5.0,M4.1.0/3", "Auckland"},
    {"<+13>-13", "Apia, Nukuʻalofa"},
};

void use_time_zone(void) {
    char rule[line_size];
    read_text("/run/time_zone", rule, sizeof rule);
    rule[strcspn(rule, "\n")] = '\0';
    setenv("TZ", *rule ? rule : "UTC0", 1);
    tzset();
}

const char *time_zone_complaint(const char *rule) {
    for (size_t i = 0; i < time_zone_count; i++)
        if (!*rule || strcmp(rule, time_zones[i].rule) == 0)
            return NULL;
    return "Choose a time zone from the list.";
}

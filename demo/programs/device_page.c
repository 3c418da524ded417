/* SPDX-License-Identifier: MIT */
#include "settings.h"

static void handle_get(struct page *page) { show_settings(page, &device_settings); }
static void handle_post(struct page *page) { save_settings(page, &device_settings); }

int main(void) {
    return serve(&(site_page){.name = "device", .get = handle_get, .post = handle_post});
}

/* SPDX-License-Identifier: MIT */
/* The page of form_page.c, on the interface alone. */
#include <corvel.h>

#include "interface.h"

#define LONGEST 65536

/** Prints the answer; the body is null unless it is JSON itself. */
static void show(const char *body, const prop_entry *form, int count) {
    const char *path = getenv("PATH_INFO");
    printf("Content-Type: application/json\r\nCache-Control: no-store\r\n\r\n{\"path\":");
    print_json(path ? path : "");
    printf(",\"body\":");
    print_json(body ? body : "");
    printf(",\"fields\":[");
    for (int row = 0; row < count; row++) {
        printf(row > 0 ? ",[" : "[");
        print_json(form[row].name);
        printf(",");
        print_json(form[row].value);
        printf("]");
    }
    printf("]}");
}

static void respond_to_json(void) {
    char *body = read_queue();
    show(body, NULL, 0);
    if (body)
        free_buff(body, (uint32_t)strlen(body));
}

static void respond_to_form(size_t query_length) {
    prop_entry *form =
        (prop_entry *)calloc((announced_length() + query_length) / 2 + 2, sizeof(prop_entry));
    char value[CORVEL_GET_PROP_SIZE];
    const char *method = getenv("REQUEST_METHOD");
    const int is_post = get_http_methmod(method);
    int count;

    if (!form) {
        refuse("503 Service Unavailable");
        return;
    }
    /* process_queue_get() decodes the query of any other method. */
    count = is_post ? process_queue(form) : process_queue_get(form);
    if (is_post && get_prop("go", value, form, count))
        printf("Status: 303 See Other\r\nLocation: /cgi-bin/form_interface\r\n\r\n");
    else
        show(NULL, form, count);
    free_prop(form, count);
    free(form);
}

int main(void) {
    const char *type = getenv("CONTENT_TYPE");
    const char *query = getenv("QUERY_STRING");
    const size_t query_length = query ? strlen(query) : 0;

    alarm(60); /* ends the program if the body does not arrive */
    if (announced_length() > LONGEST || query_length > LONGEST)
        refuse("413 Content Too Large");
    else if (type && STRCMP(type, "application/json") == 0)
        respond_to_json();
    else
        respond_to_form(query_length);
    return 0;
}

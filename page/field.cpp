// SPDX-License-Identifier: MIT
#include "page/pairs.h"
#include "page/request.h"

using namespace corvel;

extern "C" {

const char *corvel_field(const corvel_request *request, const char *name) {
    return corvel_field_at(request, name, 0);
}

const char *corvel_query(const corvel_request *request, const char *name) {
    const Pairs *const pairs = query_of(request);
    return pairs != nullptr && name != nullptr ? pairs->find(name, 0) : nullptr;
}

const char *corvel_field_at(const corvel_request *request, const char *name, size_t index) {
    const Pairs *const pairs = fields_of(request);
    return pairs != nullptr && name != nullptr ? pairs->find(name, index) : nullptr;
}

size_t corvel_field_count(const corvel_request *request) {
    const Pairs *const pairs = fields_of(request);
    return pairs != nullptr ? pairs->count() : 0;
}

bool corvel_field_pair(const corvel_request *request, size_t position, const char **name,
                       const char **value) {
    const Pairs *const pairs = fields_of(request);
    if (pairs == nullptr || position >= pairs->count())
        return false;
    if (name != nullptr)
        *name = pairs->name(position);
    if (value != nullptr)
        *value = pairs->value(position);
    return true;
}

} // extern "C"

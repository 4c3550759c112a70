// What the page shows, as JSON for its script: texts and frames stand there once, and no more sites than a
// browser bears.
#pragma once

#include "tools/report/json_writer.h"
#include "tools/report/model.h"
#include "tools/report/names.h"

void put_page_data(const Put &put, const Report &report, Order order, Names &names);

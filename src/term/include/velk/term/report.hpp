// SPDX-License-Identifier: Apache-2.0
// A transaction report for people (text) and for scripts (one JSON document
// with the same content).
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>

#include "velk/term/transaction.hpp"

namespace velk::term {

// with_trace adds every APDU (responses decoded with tag names), callback
// message and signal, in order.
void PrintReport(std::ostream &out, const TransactionReport &report, bool with_trace);
nlohmann::ordered_json ReportJson(const TransactionReport &report, bool with_trace);

// The trace alone, one event per block of lines.
void PrintTrace(std::ostream &out, const Trace &trace);
nlohmann::ordered_json TraceJson(const Trace &trace);

// Name of a callback command ("D1 terminal parameters").
std::string CallbackName(uint8_t command);
std::string SignalName(uint8_t type);

}  // namespace velk::term

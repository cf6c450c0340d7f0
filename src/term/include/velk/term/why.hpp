// SPDX-License-Identifier: Apache-2.0
// The "why" list of a transaction report: what ended the transaction and
// why, in the words a test lab writes, read from the bytes of the exchange
// (APDUs, the outcome, the data record) rather than from kernel internals.
#pragma once

#include "velk/term/transaction.hpp"

namespace velk::term {

// Fills report.why from everything else the report holds.
void ExplainReport(TransactionReport &report);

}  // namespace velk::term

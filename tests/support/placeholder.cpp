// SPDX-License-Identifier: Apache-2.0
// Keeps the support library non-empty on every configuration.

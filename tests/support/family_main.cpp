// SPDX-License-Identifier: MIT
// One table-driven test per operation family: the family's source file gives
// familyCases(), this file runs them.
#include "support/operation_table.h"
#include "support/test_main.h"

#include <QtTest>

using namespace testing_support;

CaseList familyCases();

class FamilyTest : public QObject
{
    Q_OBJECT

private slots:
    void table_data() { addRows(familyCases()); }
    void table() { runCase(service); }

private:
    TestService service;
};

NORVA_TEST_MAIN(FamilyTest)
#include "family_main.moc"

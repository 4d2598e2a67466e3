// Uses of Qt that the test must report: they compile with Qt 5, but not or not correctly with Qt 4.8.
#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

int newerNames(QByteArray& bytes, QList<int>& numbers)
{
    bytes.append(3, 'x');
    int sum = QStringLiteral("x").size() + numbers.constFirst() + qAsConst(numbers).at(0);
    foreach (int number, numbers)
        sum += number;
    return sum;
}

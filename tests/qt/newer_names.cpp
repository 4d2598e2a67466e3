// What the list of names must not hold: compiles with Qt 5, and with Qt 4.8 not or not as meant.
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

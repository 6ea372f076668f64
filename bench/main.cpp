// Runs the benchmarks: rows of the table and points of growth are appended to the two files named on the command line,
// progress goes to standard error. Usage: relay-bench ROWS GROWTH [--benchmark_filter=...]

#include "bench/figures.h"

#include <QCoreApplication>
#include <QFile>

#include <iostream>

namespace
{
QFile &rows()
{
    static QFile file;
    return file;
}

QFile &growth()
{
    static QFile file;
    return file;
}

QString number(double value, int digits = 3)
{
    // Not in the form 1.2e+04, which %g gives to what has more digits than asked for.
    return value >= 1000 ? QString::number(value, 'f', 0) : QString::number(value, 'g', digits);
}

void row(const QString &what, const QString &figure, const QString &limit, const QString &ratio, const QString &wanted,
         const QString &isMet)
{
    const QString line = QStringLiteral("| ") +
                         QStringList{what, figure, limit, ratio, wanted, isMet}.join(QStringLiteral(" | ")) +
                         QStringLiteral(" |\n");
    rows().write(line.toUtf8());
    rows().flush();
}

QString shownAs(double value, figures::Unit unit)
{
    return number(value * unit.scale) + QLatin1Char(' ') + QString::fromUtf8(unit.name);
}

QString yesNo(bool isMet)
{
    return isMet ? QStringLiteral("yes") : QStringLiteral("**no**");
}

QString withWords(double value, figures::Unit unit, const QString &limit)
{
    return shownAs(value, unit) + QStringLiteral(": ") + limit;
}
} // namespace

void figures::atLeast(double share, const QString &what, const QString &limit, Unit unit, const Pair &measured)
{
    row(what, shownAs(measured.figure, unit), withWords(measured.limit, unit, limit), shownAs(measured.ratio, percent),
        QStringLiteral("at least ") + shownAs(share, percent), yesNo(measured.ratio >= share));
}

void figures::within(double times, const QString &what, const QString &limit, Unit unit, const Pair &measured)
{
    row(what, shownAs(measured.figure, unit), withWords(measured.limit, unit, limit), number(measured.ratio),
        QStringLiteral("within ") + number(times) + QStringLiteral(" times"), yesNo(measured.ratio <= times));
}

void figures::withinMilliseconds(double distance, const QString &what, const QString &limit, const Pair &measured)
{
    row(what, shownAs(measured.figure, milliseconds), withWords(measured.limit, milliseconds, limit),
        number(measured.ratio), QStringLiteral("within ") + number(distance) + QStringLiteral(" ms"),
        yesNo(milliseconds.scale * (measured.figure - measured.limit) <= distance));
}

void figures::shown(const QString &what, const QString &limit, Unit unit, const Pair &measured)
{
    row(what, shownAs(measured.figure, unit), withWords(measured.limit, unit, limit), number(measured.ratio), QString(),
        QString());
}

void figures::under(double most, const QString &what, Unit unit, double measured)
{
    row(what, shownAs(measured, unit), QString(), QString(), QStringLiteral("under ") + shownAs(most, unit),
        yesNo(measured < most));
}

double figures::memory(const QByteArray &name, const QString &process)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(process));
    if (!status.open(QIODevice::ReadOnly))
        qFatal("no /proc");
    const QByteArray text = status.readAll();
    return 1024 * text.mid(text.indexOf(name + ':') + name.size() + 1).trimmed().split(' ').constFirst().toDouble();
}

void figures::grows(const QString &duty, const QString &what, qint64 count, double seconds)
{
    growth().write(
        QStringLiteral("%1\t%2\t%3\t%4\n").arg(duty, what).arg(count).arg(1e6 * seconds, 0, 'f', 3).toUtf8());
    growth().flush();
}

int main(int argc, char **argv)
{
    if (!qEnvironmentVariableIsSet("TZ")) // as nat-relayd does
        qputenv("TZ", ":/etc/localtime");
    const QCoreApplication application(argc, argv);
    if (argc < 3) {
        std::cerr << "Usage: relay-bench ROWS GROWTH [--benchmark_filter=...]\n";
        return 2;
    }
    rows().setFileName(QString::fromLocal8Bit(argv[1]));
    growth().setFileName(QString::fromLocal8Bit(argv[2]));
    if (!rows().open(QIODevice::Append) || !growth().open(QIODevice::Append)) {
        std::cerr << "relay-bench: cannot write\n";
        return 1;
    }
    int left = argc - 2;
    argv[2] = argv[0];
    benchmark::Initialize(&left, argv + 2);
    benchmark::ConsoleReporter progress(benchmark::ConsoleReporter::OO_None);
    progress.SetOutputStream(&std::cerr);
    progress.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&progress);
}

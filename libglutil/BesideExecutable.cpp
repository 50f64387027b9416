#include "libglutil/BesideExecutable.h"

#include <QCoreApplication>
#include <QDir>
#include <QString>

#include <filesystem>
#include <system_error>

std::string besideExecutable(const std::string& fileName)
{
    if (!QCoreApplication::instance()) {
        std::error_code ec;
        const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
        if (!ec)
            return (exe.parent_path() / fileName).string();
    }
    const QString dir = QCoreApplication::applicationDirPath();
    return QDir(dir).filePath(QString::fromStdString(fileName)).toStdString();
}

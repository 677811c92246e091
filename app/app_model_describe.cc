#include <cstring>

#include "app_model.h"

namespace dedup::app {

std::optional<Snapshot> AppModel::fileDetails(const std::string& path, QString* failure) const {
    try {
        return Snapshot::take(path);
    } catch (const SystemError& e) {
        if (failure) *failure = tr("cannot be read: %1").arg(QString::fromLocal8Bit(std::strerror(e.code)));
    } catch (const std::exception& e) {
        if (failure) *failure = tr("cannot be read: %1").arg(QString::fromUtf8(e.what()));
    }
    return std::nullopt;
}

}  // namespace dedup::app

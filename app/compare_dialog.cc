#include "compare_dialog.h"

#include <grp.h>
#include <pwd.h>

#include <QDateTime>
#include <QDialogButtonBox>
#include <QFile>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QImageReader>
#include <QLabel>
#include <QLocale>
#include <QPlainTextEdit>
#include <QStringDecoder>
#include <QTableWidget>
#include <QVBoxLayout>

#include "app_model.h"
#include "desktop_actions.h"
#include "groups_model.h"

namespace dedup::app {

namespace {

QString dateText(const Timestamp& t) {
    if (t.seconds == 0 && t.nanoseconds == 0) return CompareDialog::tr("not kept by this disk");
    return QLocale().toString(QDateTime::fromSecsSinceEpoch(t.seconds).toLocalTime(), QLocale::LongFormat);
}

QString userName(uint32_t uid) {
    struct passwd* pw = getpwuid(uid);
    return pw ? QStringLiteral("%1 (%2)").arg(QString::fromLocal8Bit(pw->pw_name)).arg(uid) : QString::number(uid);
}

QString groupName(uint32_t gid) {
    struct group* gr = getgrgid(gid);
    return gr ? QStringLiteral("%1 (%2)").arg(QString::fromLocal8Bit(gr->gr_name)).arg(gid) : QString::number(gid);
}

QString modeText(uint32_t mode) {
    static const char letters[] = "rwxrwxrwx";
    QString text;
    for (int bit = 0; bit < 9; ++bit) text += (mode & (0400u >> bit)) ? QLatin1Char(letters[bit]) : QLatin1Char('-');
    return text + QStringLiteral(" (%1)").arg(mode & 07777, 4, 8, QLatin1Char('0'));
}

// A picture scaled to fit, the start of a text, or nothing.
QWidget* preview(const std::string& path, QWidget* parent) {
    const QString name = QFile::decodeName(QByteArray::fromStdString(path));
    QImageReader reader(name);
    if (reader.canRead()) {
        const QSize limit(parent->fontMetrics().height() * 16, parent->fontMetrics().height() * 12);
        QSize size = reader.size();
        if (size.isValid()) reader.setScaledSize(size.scaled(limit, Qt::KeepAspectRatio).boundedTo(size));
        QImage image = reader.read();
        if (!image.isNull()) {
            auto* label = new QLabel(parent);
            label->setPixmap(QPixmap::fromImage(image));
            label->setAlignment(Qt::AlignCenter);
            label->setAccessibleName(CompareDialog::tr("Picture preview"));
            return label;
        }
    }
    QFile file(name);
    if (file.open(QIODevice::ReadOnly)) {
        QByteArray head = file.read(8192);
        QStringDecoder utf8(QStringDecoder::Utf8);
        QString text = utf8.decode(head);
        if (!utf8.hasError() && !head.contains('\0')) {
            auto* edit = new QPlainTextEdit(text, parent);
            edit->setReadOnly(true);
            edit->setAccessibleName(CompareDialog::tr("Text preview"));
            return edit;
        }
    }
    auto* none = new QLabel(CompareDialog::tr("No preview for this kind of file."), parent);
    none->setAlignment(Qt::AlignCenter);
    return none;
}

}  // namespace

CompareDialog::CompareDialog(AppModel& model, const std::string& left, const std::string& right, QWidget* parent)
    : QDialog(parent) {
    setWindowTitle(tr("Compare Copies"));
    table_ = new QTableWidget(this);
    table_->setAccessibleName(tr("The two copies compared"));
    table_->setColumnCount(2);
    table_->setHorizontalHeaderLabels({tr("This copy"), tr("That copy")});
    table_->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table_->setWordWrap(true);

    struct Side {
        QStringList values;
    };
    Side sides[2];
    const std::string* paths[2] = {&left, &right};
    QStringList labels = {tr("Path"),     tr("Size"),  tr("Modified"),    tr("Created"), tr("Owner"),
                          tr("Group"),    tr("Permissions"), tr("Hard links"), tr("Extended attributes"), tr("ACL")};
    for (int i = 0; i < 2; ++i) {
        QStringList& v = sides[i].values;
        v << displayPath(*paths[i]);
        QString failure;
        std::optional<Snapshot> s = model.fileDetails(*paths[i], &failure);
        if (!s) {
            while (v.size() < labels.size()) v << failure;
            continue;
        }
        v << bytesText(s->status.size) + QStringLiteral(" (") + QLocale().toString(static_cast<qlonglong>(s->status.size)) +
                 tr(" bytes)");
        v << dateText(s->times.modified) << dateText(s->times.created);
        v << userName(s->status.uid) << groupName(s->status.gid) << modeText(s->status.mode);
        v << QString::number(s->status.links);
        QStringList attributes;
        for (const auto& a : s->attributeNames) attributes << QString::fromStdString(a);
        v << (attributes.isEmpty() ? tr("none") : attributes.join('\n'));
        v << (s->acl ? QString::fromStdString(*s->acl).trimmed() : tr("none"));
    }
    table_->setRowCount(static_cast<int>(labels.size()));
    table_->setVerticalHeaderLabels(labels);
    for (int row = 0; row < labels.size(); ++row) {
        const bool differs = row > 0 && sides[0].values[row] != sides[1].values[row];
        for (int col = 0; col < 2; ++col) {
            auto* item = new QTableWidgetItem(sides[col].values[row]);
            if (differs) {
                QFont font = item->font();
                font.setBold(true);
                item->setFont(font);
                item->setToolTip(tr("The two copies differ here"));
            }
            table_->setItem(row, col, item);
        }
        if (differs) table_->verticalHeaderItem(row)->setData(Qt::UserRole, true);
    }

    auto* previews = new QHBoxLayout;
    previews->addWidget(preview(left, this), 1);
    previews->addWidget(preview(right, this), 1);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::close);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(table_);
    layout->addLayout(previews, 1);
    layout->addWidget(buttons);
    resize(fontMetrics().horizontalAdvance(QLatin1Char('M')) * 70, fontMetrics().height() * 40);
}

void CompareDialog::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    // Row heights follow the wrapped text only once the columns have their real width.
    table_->resizeRowsToContents();
    // The table as tall as its rows, so the previews get the rest.
    int height = table_->horizontalHeader()->height() + table_->frameWidth() * 2;
    for (int row = 0; row < table_->rowCount(); ++row) height += table_->rowHeight(row);
    table_->setFixedHeight(height);
}

QStringList CompareDialog::differences() const {
    QStringList result;
    for (int row = 0; row < table_->rowCount(); ++row) {
        if (table_->verticalHeaderItem(row)->data(Qt::UserRole).toBool()) result << table_->verticalHeaderItem(row)->text();
    }
    return result;
}

}  // namespace dedup::app

#include "update_bar.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

#include "update_check.h"

namespace dedup::app {

UpdateBar::UpdateBar(UpdateCheck& check, QWidget* parent) : QFrame(parent), check_(check) {
    setObjectName(QStringLiteral("updateBar"));
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    label_ = new QLabel(this);
    label_->setWordWrap(true);
    label_->setTextFormat(Qt::RichText);
    label_->setOpenExternalLinks(true);
    label_->setTextInteractionFlags(Qt::TextBrowserInteraction);
    allow_ = new QPushButton(tr("Check Once a Day"), this);
    allow_->setObjectName(QStringLiteral("allowUpdateCheck"));
    refuse_ = new QPushButton(tr("Don't Check"), this);
    refuse_->setObjectName(QStringLiteral("refuseUpdateCheck"));
    dismiss_ = new QPushButton(tr("Later"), this);
    dismiss_->setObjectName(QStringLiteral("dismissUpdate"));
    auto* layout = new QHBoxLayout(this);
    layout->addWidget(label_, 1);
    layout->addWidget(allow_);
    layout->addWidget(refuse_);
    layout->addWidget(dismiss_);

    connect(allow_, &QPushButton::clicked, this, [this] {
        check_.setConsent(true);
        check_.check();
    });
    connect(refuse_, &QPushButton::clicked, this, [this] { check_.setConsent(false); });
    connect(dismiss_, &QPushButton::clicked, this, [this] {
        dismissed_ = true;
        refresh();
    });
    connect(&check_, &UpdateCheck::consentChanged, this, &UpdateBar::refresh);
    connect(&check_, &UpdateCheck::availableChanged, this, [this] {
        dismissed_ = false;
        refresh();
    });
    refresh();
}

QString UpdateBar::text() const { return isHidden() ? QString() : label_->text(); }

void UpdateBar::refresh() {
    const bool asking = check_.consent() == UpdateCheck::Consent::notAsked;
    const auto& release = check_.available();
    const bool announcing = !asking && release && check_.consent() == UpdateCheck::Consent::allowed && !dismissed_;
    if (asking) {
        label_->setText(tr("Should VELMORA.dedup look once a day whether a newer version is out? It asks %1 and "
                           "tells it nothing but the version you have.")
                            .arg(check_.feed().host().toHtmlEscaped()));
    } else if (announcing) {
        // Everything the feed says is shown as text: only the link is a link.
        QString text = tr("VELMORA.dedup %1 is out (you have %2). <a href=\"%3\">Download it</a>")
                           .arg(release->version.toHtmlEscaped(), check_.runningVersion().toHtmlEscaped(),
                                release->download.toString(QUrl::FullyEncoded).toHtmlEscaped());
        if (!release->notes.isEmpty()) text += QStringLiteral("<br>") + release->notes.toHtmlEscaped().replace(QLatin1Char('\n'), QStringLiteral("<br>"));
        label_->setText(text);
    }
    allow_->setVisible(asking);
    refuse_->setVisible(asking);
    dismiss_->setVisible(announcing);
    setVisible(asking || announcing);
}

}  // namespace dedup::app

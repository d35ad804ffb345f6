// `Tarn.pageName`: a QML item as a tracked page, and `Tarn.sendCustomEvent`.
#include <QJsonDocument>
#include <QJsonObject>
#include <QQmlEngine>
#include <algorithm>

#include "Internal.h"
#include "tarn/core/Log.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn::quick::detail {

namespace {

/// The pages that are in now, for `currentPage`.
std::vector<PageAttached*>& activePages() {
    static auto* pages = new std::vector<PageAttached*>;  // GUI thread only; never destroyed
    return *pages;
}
quint64 nextActiveSince = 0;

/// A StackView or a Qt Quick Controls container (SwipeView, ...): only its current item, and what
/// is inside it, is what the user sees, whatever the other items' `visible` says.
bool showsOnlyItsCurrentItem(const QQuickItem* item) {
    return item->inherits("QQuickStackView") || item->inherits("QQuickContainer");
}

QQuickItem* currentItemOf(const QQuickItem* pager) {
    return pager->property("currentItem").value<QQuickItem*>();
}

}  // namespace

PageAttached* TarnQml::qmlAttachedProperties(QObject* object) {
    return new PageAttached(object);
}

PageAttached::PageAttached(QObject* object)
    : QObject(object), item_(qobject_cast<QQuickItem*>(object)) {}

PageAttached::~PageAttached() {
    std::erase(activePages(), this);
    if (active_ && screen_) {
        // The page goes while the user sees it (a StackView pop destroys it, its window closes).
        NotificationCenter::defaultCenter().post(kTarnPageOutNotification, screen_);
    }
}

void PageAttached::setPageName(const QString& name) {
    if (name == pageName_) {
        return;
    }
    if (active_) {
        // A renamed page leaves under its old name and comes back under the new one.
        active_ = false;
        std::erase(activePages(), this);
        NotificationCenter::defaultCenter().post(kTarnPageOutNotification, screen_);
        emit activeChanged();
    }
    pageName_ = name;
    emit pageNameChanged();
    rehook();
    evaluate();  // an arrival is reported from the event loop, once the QML around it is complete
}

void PageAttached::rehook() {
    for (auto& hook : hooks_) {
        disconnect(hook);
    }
    hooks_.clear();
    if (!item_ || pageName_.isEmpty()) {
        return;
    }
    auto again = [this] {
        rehook();
        evaluate();
    };
    hooks_.push_back(connect(item_, &QQuickItem::windowChanged, this, again));
    for (QQuickItem* item = item_; item; item = item->parentItem()) {
        hooks_.push_back(connect(item, &QQuickItem::visibleChanged, this, [this] { evaluate(); }));
        hooks_.push_back(connect(item, &QQuickItem::parentChanged, this, again));
        if (item != item_ && showsOnlyItsCurrentItem(item)) {
            int signal = item->metaObject()->indexOfSignal("currentItemChanged()");
            if (signal >= 0) {
                hooks_.push_back(connect(item, item->metaObject()->method(signal), this,
                                         metaObject()->method(metaObject()->indexOfSlot(
                                             "evaluateSlot()"))));
            }
        }
    }
    if (auto* window = item_->window()) {
        hooks_.push_back(connect(window, &QWindow::visibleChanged, this, [this] { evaluate(); }));
    }
}

bool PageAttached::computeActive() const {
    if (!item_ || pageName_.isEmpty() || !item_->window() || !item_->window()->isVisible() ||
        !item_->isVisible()) {
        return false;
    }
    for (QQuickItem* above = item_->parentItem(); above; above = above->parentItem()) {
        if (showsOnlyItsCurrentItem(above)) {
            QQuickItem* current = currentItemOf(above);
            if (!current || (current != item_ && !current->isAncestorOf(item_))) {
                return false;
            }
        }
    }
    return true;
}

void PageAttached::evaluate() {
    bool now = computeActive();
    if (now == active_) {
        return;
    }
    if (!now) {
        active_ = false;
        std::erase(activePages(), this);
        NotificationCenter::defaultCenter().post(kTarnPageOutNotification, screen_);
        emit activeChanged();
        return;
    }
    // Coming in waits for the event loop: one change (a StackView's current item) reaches the
    // pages in the order they were connected, and the page that leaves is to be reported first.
    if (!inPending_) {
        inPending_ = true;
        QMetaObject::invokeMethod(
            this,
            [this] {
                inPending_ = false;
                if (active_ || !computeActive()) {
                    return;
                }
                active_ = true;
                activeSince_ = ++nextActiveSince;
                activePages().push_back(this);
                screen_ = screenFor(item_);
                NotificationCenter::defaultCenter().post(kTarnPageInNotification, screen_);
                emit activeChanged();
            },
            Qt::QueuedConnection);
    }
}

void PageAttached::sendCustomEvent(const QString& name, const QVariantMap& parameters) {
    // The screen: the nearest tracked page at or above the caller, else the window's current page.
    QObject* target = nullptr;
    QPointer<PageAttached> answer(this);  // where `action` is emitted: the page, else the caller
    for (QQuickItem* item = qobject_cast<QQuickItem*>(parent()); item; item = item->parentItem()) {
        auto* page =
            qobject_cast<PageAttached*>(qmlAttachedPropertiesObject<TarnQml>(item, false));
        if (page && !page->pageName().isEmpty()) {
            target = item;
            answer = page;
            break;
        }
    }
    if (!target) {
        QQuickWindow* window = windowOf(parent());
        target = window ? static_cast<QObject*>(currentPage(window)) : nullptr;
        if (!target) {
            target = window ? static_cast<QObject*>(window) : parent();
        }
    }
    std::optional<nlohmann::json> body;
    if (!parameters.isEmpty()) {
        QByteArray text = QJsonDocument(QJsonObject::fromVariantMap(parameters)).toJson(
            QJsonDocument::Compact);
        body = nlohmann::json::parse(text.toStdString(), nullptr, false);
        if (body->is_discarded()) {
            body.reset();
        }
    }
    TarnEvent::shared().sendCustomEvent(
        screenFor(target), std::nullopt, name.toStdString(), body,
        [answer](const AppCommunicationAction& picked) {
            QString type = picked.type == TarnActionType::deep  ? QStringLiteral("deep")
                           : picked.type == TarnActionType::url ? QStringLiteral("url")
                                                                : QStringLiteral("unknown");
            if (answer) {
                emit answer->action(QString::fromStdString(picked.link.value_or("")), type);
            }
            if (auto actions = currentOptions().actions) {
                actions(picked);
            }
        });
}

QQuickItem* currentPage(QQuickWindow* window) {
    PageAttached* best = nullptr;
    for (auto* page : activePages()) {
        auto* item = qobject_cast<QQuickItem*>(page->parent());
        if (item && item->window() == window && (!best || page->activeSince() > best->activeSince())) {
            best = page;
        }
    }
    return best ? qobject_cast<QQuickItem*>(best->parent()) : nullptr;
}

}  // namespace tarn::quick::detail

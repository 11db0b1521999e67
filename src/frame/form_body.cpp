// SPDX-License-Identifier: MIT
#include "frame/form_body.h"

#include <QHttpMultiPart>
#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace norva {

namespace {

// A reply that never was: the manager wants one back from createRequest.
class NoReply final : public QNetworkReply
{
public:
    explicit NoReply(QObject* parent) : QNetworkReply(parent) { setFinished(true); }
    void abort() override {}

protected:
    qint64 readData(char*, qint64) override { return -1; }
};

// A manager that sends nothing: it keeps what post() would have sent.
class FormCapture final : public QNetworkAccessManager
{
public:
    FormBody captured;

protected:
    QNetworkReply* createRequest(Operation, const QNetworkRequest& request, QIODevice* outgoingData) override
    {
        captured = {request, outgoingData};
        return new NoReply(this);
    }
};

} // namespace

FormBody formBody(const QNetworkRequest& request, QHttpMultiPart& form)
{
    FormCapture capture;
    delete capture.post(request, &form);
    return capture.captured;
}

} // namespace norva

// SPDX-License-Identifier: MIT
// Login, logout, password, user queries, the mall and the planner: token or
// none, GET queries, and how "msg" is read in each.
#include "support/operation_table.h"

#include "norva_api_qt.h"

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;
using namespace NORVA::TAVLIN_KVRAPI_QT;

// Login: every row of its result table, and the arguments a host can get wrong.
CaseList loginCases()
{
    const QString ada = R"({"ipconfig":"$ADDR","username":"ada","password":"pw"})";
    const Wire adaWire = openPost("/kvr/authority/login", R"({"userName":"ada","userPwd":"pw"})");
    const QString adaSent = sent(R"({"userName":"ada","userPwd":"pw"})");
    const auto reply = [](const QByteArray& body) { return ScriptedReply::json(body); };
    ScriptedReply redirect = ScriptedReply::withStatus(302);
    redirect.headers = {{"Location", "/elsewhere"}};
    CaseList cases{
        {"login code 200 hands back data", norva_sdk_login, ada, reply(R"({"code":200,"msg":"hi","data":{"token":"t1"}})"), adaWire,
         R"({"data":{"token":"t1"},"message":"login success","status":200})", {}},
        {"login code 200 without data", norva_sdk_login, ada, reply(R"({"code":200})"), adaWire, R"({"message":"login success","status":200})", {}},
        {"login 410 returns the sent text, not the reply's data", norva_sdk_login, ada, reply(R"({"code":410,"msg":"no","data":"x"})"), adaWire,
         R"({"data":)" + adaSent + R"(,"message":"User does not exist","status":410})", {}},
        {"login 411 returns the sent text", norva_sdk_login, ada, reply(R"({"code":411})"), adaWire,
         R"({"data":)" + adaSent + R"(,"message":"Wrong password","status":411})", {}},
        {"login 412 carries msg and data", norva_sdk_login, ada, reply(R"({"code":412,"msg":"locked","data":[1]})"), adaWire,
         R"({"Error_info":"locked","data":[1],"message":"login fail","status":412})", {}},
        {"login 412 without msg or data", norva_sdk_login, ada, reply(R"({"code":412})"), adaWire,
         R"({"Error_info":null,"message":"login fail","status":412})", {}},
        {"login 412 keeps a numeric msg as a number", norva_sdk_login, ada, reply(R"({"code":412,"msg":7})"), adaWire,
         R"({"Error_info":7,"message":"login fail","status":412})", {}},
        {"login other code", norva_sdk_login, ada, reply(R"({"code":500,"msg":"boom","data":null})"), adaWire,
         R"({"Error_info":"boom","data":null,"message":"login fail","status":400})", {}},
        {"login code as the text 200 counts as 0", norva_sdk_login, ada, reply(R"({"code":"200","data":1})"), adaWire,
         R"({"Error_info":null,"data":1,"message":"login fail","status":400})", {}},
        {"login a JSON array reply has code 0", norva_sdk_login, ada, reply("[]"), adaWire,
         R"({"Error_info":null,"message":"login fail","status":400})", {}},
        {"login a redirect is not followed", norva_sdk_login, ada, redirect, adaWire, R"({"message":"request fail","status":400})", {}},
        {"login peer closes without answering", norva_sdk_login, ada, ScriptedReply::closeWithoutAnswer(), adaWire,
         R"({"message":"Server shuts down","status":400})", {}},
        {"login missing password leaves the key out", norva_sdk_login, R"({"ipconfig":"$ADDR","username":"ada"})", reply(R"({"code":411})"),
         openPost("/kvr/authority/login", R"({"userName":"ada"})"), R"({"data":"{\"userName\":\"ada\"}","message":"Wrong password","status":411})", {}},
        {"login neither name nor password sends {}", norva_sdk_login, R"({"ipconfig":"$ADDR"})", reply(R"({"code":410})"),
         openPost("/kvr/authority/login", "{}"), R"({"data":"{}","message":"User does not exist","status":410})", {}},
        {"login a numeric password goes out as a number", norva_sdk_login, R"({"ipconfig":"$ADDR","username":"ada","password":1234})",
         reply(R"({"code":200,"data":"t"})"), openPost("/kvr/authority/login", R"({"userName":"ada","userPwd":1234})"),
         R"({"data":"t","message":"login success","status":200})", {}},
        {"login non-ASCII text travels as UTF-8 both ways", norva_sdk_login,
         QString::fromUtf8(R"({"ipconfig":"$ADDR","username":"Zoë 测试","password":"pw"})"),
         reply(QString::fromUtf8(R"({"code":200,"data":"Zoë 测试"})").toUtf8()),
         openPost("/kvr/authority/login", QString::fromUtf8(R"({"userName":"Zoë 测试","userPwd":"pw"})").toUtf8()),
         QString::fromUtf8(R"({"data":"Zoë 测试","message":"login success","status":200})"), {}},
        {"login a top-level array has no keys, so no address", norva_sdk_login, "[]", ScriptedReply(), nothingSent(),
         R"({"message":"Server shuts down","status":400})", {}},
    };
    const CaseList http = httpClassCases("login", norva_sdk_login, ada, adaWire, false, adaSent);
    cases.insert(cases.end(), http.begin(), http.end());
    const CaseList arguments = argumentFailureCases("login", norva_sdk_login);
    cases.insert(cases.end(), arguments.begin(), arguments.end());
    return cases;
}

CaseList familyCases()
{
    const char* json = "application/json";
    const char* form = "application/x-www-form-urlencoded";

    CaseList cases = loginCases();
    const CaseList accounts{
        {"logout success, no token header", norva_sdk_logout, R"({"id":4})", ScriptedReply::json(R"({"code":200,"data":"bye"})"),
         openPost("/kvr/authority/logOut", R"({"id":4})"), R"({"data":"bye","message":"log out success","status":200})", {}},
        {"logout refusal has error_msg and logoutdata", norva_sdk_logout, R"({"id":"4"})",
         ScriptedReply::json(R"({"code":3,"msg":"who","data":[4]})"), openPost("/kvr/authority/logOut", R"({"id":0})"),
         R"({"error_msg":"who","logoutdata":[4],"message":"log out fail","status":400})", {}},
        {"logout refusal without msg or data", norva_sdk_logout, "{}", ScriptedReply::json(R"({"code":3})"),
         openPost("/kvr/authority/logOut", R"({"id":0})"), R"({"error_msg":null,"message":"log out fail","status":400})", {}},
        {"update_password", norva_sdk_update_password, R"({"userid":3,"new_pwd":"n3w"})", ScriptedReply::json(R"({"code":200,"data":1})"),
         post("/kvr/authority/updateUser", R"({"id":3,"userPwd":"n3w"})"), R"({"data":1,"message":"update pwd success","status":200})", {}},
        {"update_password failure keeps data, drops msg", norva_sdk_update_password, "{}",
         ScriptedReply::json(R"({"code":5,"msg":"weak","data":"d"})"), post("/kvr/authority/updateUser", R"({"id":0,"userPwd":""})"),
         R"({"data":"d","message":"update pwd fail","status":400})", {}},
        {"get_user_info_list with no filters", norva_sdk_get_user_info_list, "{}", ScriptedReply::json(R"({"code":200,"data":[]})"),
         post("/kvr/authority/selectUser", R"({"id":null,"userName":null,"userRealname":null})"),
         R"({"data":[],"message":"user table info search success","status":200})", {}},
        {"get_user_info_list passes a text id unconverted", norva_sdk_get_user_info_list, R"({"user_id":"5","userRealname":"Ada"})",
         ScriptedReply::json(R"({"code":1,"msg":"x"})"), post("/kvr/authority/selectUser", R"({"id":"5","userName":null,"userRealname":"Ada"})"),
         R"({"message":"user table info search fail","status":400})", {}},
        {"get_user_info_list_by_page without which_page", norva_sdk_get_user_info_list_by_page, R"({"data_num_in_each_page":10})",
         ScriptedReply::json(R"({"code":200})"),
         post("/kvr/authority/selectUserByPage", R"({"id":null,"pageSize":10,"userName":null,"userRealname":null})"),
         R"({"message":"user table info by page search success","status":200})", {}},

        // Mall GETs: msg read as text (a number gives ""), data only on success.
        {"select_boardid_by_order_num", norva_tavlin_select_boardid_by_order_num, R"({"data":{"orderNum":"A-17"}})",
         ScriptedReply::json(R"({"code":200,"msg":5,"data":{"brdId":3}})"), openGet("/mall/order/selectBrdId?orderNum=A-17", json),
         R"({"API_msg":"","data":{"brdId":3},"message":"select board id by order num in mall table success","status":200})", {}},
        {"select_boardid_by_order_num failure drops data", norva_tavlin_select_boardid_by_order_num, R"({"data":{"orderNum":12}})",
         ScriptedReply::json(R"({"code":404,"msg":"none","data":1})"), openGet("/mall/order/selectBrdId?orderNum=", json),
         R"({"API_msg":"none","message":"select board id by order num in mall table fail","status":400})", {}},
        {"get_bid_name_list_by_page reads pages as integers", norva_tavlin_get_bid_name_list_by_page,
         R"({"which_page":"3","data_num_in_each_page":25})", ScriptedReply::json(R"({"code":200,"data":[]})"),
         openGet("/mall/originalFile/getFileName?pageNo=0&pageSize=25", form),
         R"({"API_msg":null,"data":[],"message":"select board ids and filenames by page success","status":200})", {}},
        // Mall POSTs: msg passed on as it is, the request returned on failure.
        {"select_order_by_page keeps a numeric msg", norva_tavlin_select_order_by_page, R"({"which_page":"3","orderNum":"A"})",
         ScriptedReply::json(R"({"code":200,"msg":7,"data":[]})"),
         openPost("/mall/order/selectOrderByPage", R"({"boardId":null,"orderNum":"A","pageNo":"3","userId":null})"),
         R"({"API_msg":7,"data":[],"message":"select order table by page success","status":200})", {}},
        {"select_order_by_page failure", norva_tavlin_select_order_by_page, "{}", ScriptedReply::json(R"({"code":1})"),
         openPost("/mall/order/selectOrderByPage", R"({"boardId":null,"orderNum":null,"userId":null})"),
         R"({"API_msg":null,"data":"{\"boardId\":null,\"orderNum\":null,\"userId\":null}","message":"select order table by page fail","status":400})", {}},
        {"select_orig_file_by_page", norva_tavlin_select_orig_file_by_page, R"({"createUserId":4,"createuserid":5})",
         ScriptedReply::json(R"({"code":200,"msg":"ok","data":{}})"),
         openPost("/mall/originalFile/selectOdbppOrigfilemanageByPage", R"({"createuserid":4})"),
         R"({"API_msg":"ok","data":{},"message":"select original file manage table by page success","status":200})", {}},

        // Planner.
        {"get_all_model_id", norva_tavlin_get_all_model_id, "{}", ScriptedReply::json(R"({"code":200,"data":[1,2]})"),
         openGet("/tavlin/tavlinModel/selectAllModel", form),
         R"({"API_msg":null,"data":[1,2],"message":"select all models success","status":200})", {}},
        {"get_latest_model_id failure", norva_tavlin_get_latest_model_id, "{}", ScriptedReply::json(R"({"code":2,"msg":"none","data":3})"),
         openGet("/tavlin/tavlinModel/selectNewModel", form), R"({"API_msg":"none","message":"select latest model fail","status":400})", {}},
        {"get_process_parameters keeps the sign", norva_tavlin_get_process_parameters, R"({"data":{"modelId":-5}})",
         ScriptedReply::json(R"({"code":200,"data":{"speed":3}})"), openGet("/tavlin/tavlinModel/selectParams?id=-5", form),
         R"({"API_msg":null,"data":{"speed":3},"message":"select process parameters success","status":200})", {}},
        {"get_process_parameters reads modelId only", norva_tavlin_get_process_parameters, R"({"data":{"id":5}})",
         ScriptedReply::json(R"({"code":200})"), openGet("/tavlin/tavlinModel/selectParams?id=0", form),
         R"({"API_msg":null,"message":"select process parameters success","status":200})", {}},
    };

    const auto add = [&cases](const CaseList& more) { cases.insert(cases.end(), more.begin(), more.end()); };
    add(accounts);
    add(httpClassCases("logout", norva_sdk_logout, "{}", openPost("/kvr/authority/logOut", R"({"id":0})"), false, R"("{\"id\":0}")"));
    add(httpClassCases("update_password", norva_sdk_update_password, "{}",
                       post("/kvr/authority/updateUser", R"({"id":0,"userPwd":""})"), true, R"("{\"id\":0,\"userPwd\":\"\"}")"));
    add(httpClassCases("get_user_info_list_by_page", norva_sdk_get_user_info_list_by_page, "{}",
                       post("/kvr/authority/selectUserByPage", R"({"id":null,"userName":null,"userRealname":null})"), true,
                       sent(R"({"id":null,"userName":null,"userRealname":null})")));
    add(httpClassCases("select_boardid_by_order_num", norva_tavlin_select_boardid_by_order_num, R"({"data":{"orderNum":"A"}})",
                       openGet("/mall/order/selectBrdId?orderNum=A", json), false, R"("http://$ADDR/mall/order/selectBrdId?orderNum=A")"));
    add(httpClassCases("get_bid_name_list_by_page", norva_tavlin_get_bid_name_list_by_page, "{}",
                       openGet("/mall/originalFile/getFileName?pageNo=0&pageSize=0", form), false,
                       R"("http://$ADDR/mall/originalFile/getFileName?pageNo=0&pageSize=0")"));
    add(httpClassCases("select_orig_file_by_page", norva_tavlin_select_orig_file_by_page, "{}",
                       openPost("/mall/originalFile/selectOdbppOrigfilemanageByPage", R"({"createuserid":null})"), false,
                       R"("{\"createuserid\":null}")"));
    add(httpClassCases("get_all_model_id", norva_tavlin_get_all_model_id, "{}",
                       openGet("/tavlin/tavlinModel/selectAllModel", form), false, QString()));
    add(httpClassCases("get_process_parameters", norva_tavlin_get_process_parameters, "{}",
                       openGet("/tavlin/tavlinModel/selectParams?id=0", form), false,
                       R"("http://$ADDR/tavlin/tavlinModel/selectParams?id=0")"));
    add(argumentFailureCases("get_latest_model_id", norva_tavlin_get_latest_model_id));
    add(argumentFailureCases("logout", norva_sdk_logout));
    return cases;
}

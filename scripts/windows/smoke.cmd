@echo off
rem smoke.cmd STAGE-FOLDER: for a real Windows machine. Computes the MD5 of a small file through engine, worker and plug-in,
rem and says whether it is right. Everything it makes is in a folder of its own below %TEMP%, which stays when it fails.
setlocal
set "stage=%~1"
if not exist "%stage%\rqengine.exe" (
    echo usage: smoke.cmd STAGE-FOLDER ^(the folder of rqengine.exe^)
    exit /b 2
)
set "work=%TEMP%\rqworker smoke %RANDOM%"
set "expected=900150983cd24fb0d6963f7d28e17f72"
mkdir "%work%"
<nul set /p "=abc" > "%work%\sample.txt"

start "rqengine" /b "%stage%\rqengine.exe" --data "%work%\data" --port 0 --http-port 0 > "%work%\engine.txt" 2>&1
for /l %%i in (1,1,30) do if not exist "%work%\data\engine.json" ping -n 2 127.0.0.1 > nul
"%stage%\rqctl.exe" --data "%work%\data" submit md5 --watch -- "%work%\sample.txt" > "%work%\result.txt" 2>&1
set "ended=%errorlevel%"
"%stage%\rqctl.exe" --data "%work%\data" shutdown --cancel
type "%work%\result.txt"

rem By its full path: others call another program "find".
set "failed=0"
"%SystemRoot%\System32\find.exe" "%expected%" "%work%\result.txt" > nul
if errorlevel 1 set "failed=1"
if not "%ended%" == "0" set "failed=1"
if "%failed%" == "1" (
    echo smoke: FAILED: expected the MD5 %expected%; rqctl ended with %ended%.
    echo smoke: what was written is in "%work%"
    exit /b 1
)
rem The engine may still have files open while it ends.
for /l %%i in (1,1,30) do if exist "%work%" (
    rmdir /s /q "%work%" 2> nul
    if exist "%work%" ping -n 2 127.0.0.1 > nul
)
if exist "%work%" echo smoke: "%work%" could not be removed
echo smoke: OK: the MD5 is %expected%, as expected.
exit /b 0

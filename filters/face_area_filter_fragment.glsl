// Face area passes, chosen by filterType: 1 smooths the skin with an
// edge-preserving blur of green weighted by a Gaussian over the face area,
// 2 tints the lips towards one colour (the worker draws only the mouth mesh).
varying vec2 textureCoordinate;

uniform float filterType = 1.0;
uniform sampler2D inputImageTexture;
uniform float smoothStrength;
uniform float redLipsStrength;
uniform vec4 smooth_face_area;
uniform float premulAlpha;
uniform float redden;
uniform float whitening;
uniform float pinking;

// The sampling offsets are in units of this reference size, whatever the
// picture's real size.
const float x_a = 640.0;
const float y_a = 1136.0;

vec4 withAlpha(vec3 color, float alpha)
{
    if (premulAlpha == 1.0)
        return vec4(color * alpha, alpha);
    return vec4(color, alpha);
}

// The face weight: a Gaussian over the face area that drops to 0 abruptly at
// the level exp(-4.0).
float faceWeight()
{
    float face_area_x = (textureCoordinate.x - smooth_face_area.x) / smooth_face_area.z;
    float face_area_y = (textureCoordinate.y - smooth_face_area.y) / smooth_face_area.w;
    float dx = (face_area_x - 0.5) / 0.4;
    float dy = (face_area_y - 0.5) / 0.4;
    float expFac = -(dx * dx + dy * dy) / 2.0;
    float kernelVal = exp(expFac);
    float smallVal = exp(-4.0);
    return kernelVal < smallVal ? 0.0 : kernelVal;
}

void Image_Beauty_Smooth()
{
    float kernelRatio = faceWeight();
    vec4 bgColor = texture2D(inputImageTexture, textureCoordinate);

    vec2 blurCoordinates[20];
    float mul_x = 2.0 / x_a;
    float mul_y = 2.0 / y_a;
    blurCoordinates[0] = textureCoordinate + vec2(0.0 * mul_x, -10.0 * mul_y);
    blurCoordinates[1] = textureCoordinate + vec2(5.0 * mul_x, -8.0 * mul_y);
    blurCoordinates[2] = textureCoordinate + vec2(8.0 * mul_x, -5.0 * mul_y);
    blurCoordinates[3] = textureCoordinate + vec2(10.0 * mul_x, 0.0 * mul_y);
    blurCoordinates[4] = textureCoordinate + vec2(8.0 * mul_x, 5.0 * mul_y);
    blurCoordinates[5] = textureCoordinate + vec2(5.0 * mul_x, 8.0 * mul_y);
    blurCoordinates[6] = textureCoordinate + vec2(0.0 * mul_x, 10.0 * mul_y);
    blurCoordinates[7] = textureCoordinate + vec2(-5.0 * mul_x, 8.0 * mul_y);
    blurCoordinates[8] = textureCoordinate + vec2(-8.0 * mul_x, 5.0 * mul_y);
    blurCoordinates[9] = textureCoordinate + vec2(-10.0 * mul_x, 0.0 * mul_y);
    blurCoordinates[10] = textureCoordinate + vec2(-8.0 * mul_x, -5.0 * mul_y);
    blurCoordinates[11] = textureCoordinate + vec2(-5.0 * mul_x, -8.0 * mul_y);
    mul_x = 1.6 / x_a;
    mul_y = 1.6 / y_a;
    blurCoordinates[12] = textureCoordinate + vec2(0.0 * mul_x, -6.0 * mul_y);
    blurCoordinates[13] = textureCoordinate + vec2(-4.0 * mul_x, -4.0 * mul_y);
    blurCoordinates[14] = textureCoordinate + vec2(-6.0 * mul_x, 0.0 * mul_y);
    blurCoordinates[15] = textureCoordinate + vec2(-4.0 * mul_x, 4.0 * mul_y);
    blurCoordinates[16] = textureCoordinate + vec2(0.0 * mul_x, 6.0 * mul_y);
    blurCoordinates[17] = textureCoordinate + vec2(4.0 * mul_x, 4.0 * mul_y);
    blurCoordinates[18] = textureCoordinate + vec2(6.0 * mul_x, 0.0 * mul_y);
    blurCoordinates[19] = textureCoordinate + vec2(4.0 * mul_x, -4.0 * mul_y);

    float central = bgColor.g;
    float gaussianWeightTotal = 0.2;
    float sum = central * 0.2;
    for (int i = 0; i < 20; i++) {
        float baseWeight = i < 12 ? 0.08 : 0.1;
        float sampleColor = texture2D(inputImageTexture, blurCoordinates[i]).g;
        float dist = min(abs(central - sampleColor) * 3.6, 1.0);
        float weight = baseWeight * (1.0 - dist);
        gaussianWeightTotal += weight;
        sum += sampleColor * weight;
    }
    sum = sum / gaussianWeightTotal;

    vec3 centralColor = bgColor.rgb;
    // High-pass of green, then a hard-light contrast of it, five times.
    float sample_pt = central - sum + 0.5;
    for (int i = 0; i < 5; i++) {
        if (sample_pt <= 0.5)
            sample_pt = sample_pt * sample_pt * 2.0;
        else
            sample_pt = 1.0 - (1.0 - sample_pt) * (1.0 - sample_pt) * 2.0;
    }

    float aa = 1.0 + pow(sum, 0.3) * 0.09;
    vec3 smoothColor = centralColor * aa - vec3(sample_pt) * (aa - 1.0);
    smoothColor = clamp(smoothColor, vec3(0.0), vec3(1.0));
    // Dark pixels stay unsmoothed: a mix by central^0.33, then one by
    // central^0.39 of that, which is one mix by central^0.72.
    smoothColor = mix(centralColor, smoothColor, pow(central, 0.72) * smoothStrength);
    // A strength above 1 can carry a dark channel below 0, whose power is
    // undefined (NaN on Mesa): that would blacken the pixel even where the
    // face weight is 0.
    vec3 fgColor = pow(max(smoothColor, vec3(0.0)), vec3(0.96));

    vec3 result = bgColor.rgb * (1.0 - kernelRatio) + fgColor * kernelRatio;
    gl_FragColor = withAlpha(result, bgColor.a);
}

void Image_Beauty_lips()
{
    vec4 textureColor = texture2D(inputImageTexture, textureCoordinate);
    vec3 lipColor = vec3(0.502, 0.122, 0.102);
    vec3 result = mix(textureColor.rgb, lipColor, redLipsStrength);
    gl_FragColor = withAlpha(result, textureColor.a);
}

void main()
{
    if (filterType == 1.0)
        Image_Beauty_Smooth();
    else if (filterType == 2.0)
        Image_Beauty_lips();
}
